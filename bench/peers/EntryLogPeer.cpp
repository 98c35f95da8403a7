// The project's entry log for the reference table type: the configuration of unit 0 and the
// table type's change log in shared memory under VESK_SHM_ROOT.
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>

#include "Asic/GroupInterface.h"
#include "Asic/SwTableStats.h"
#include "Cairn/EntityManager.h"
#include "Peer.h"
#include "VeskTapAgg/EntryLog.h"

namespace VeskPeers {

namespace {

using Traits = VeskTapAgg::DefaultFwdTcamEntryTraits;
const Asic::UnitId kUnit(0);

// A fresh entry log with unit 0 mounted, in its own namespace "local/peers-<n>" (removed on
// close); a change is one entryIs or entryDel, a trim one cleanupEntryLog. Owns the entry
// log, its state database and group interface; single-threaded.
class EntryLogPeer final : public Peer {
 public:
  ~EntryLogPeer() override { close(); }

  std::string name() const override { return "entrylog/change"; }

  void open(const std::string&) override {
    namespace_ = fmt::format("peers-{}", ++opened_);
    em_ = Nimbo::make<Cairn::EntityManager>(namespace_, true);
    gi_ = Nimbo::make<Asic::GroupInterface>();
    stats_ = Nimbo::make<Asic::SwTableStats>();
    log_ = VeskTapAgg::defaultFwdTcamEntryEntryLogFactory(Traits::tableId, em_, gi_, "peers");
    log_->mountShardConfig(kUnit, Asic::LogVersion(0));
  }

  void change(const Change& c) override {
    Asic::LogVersion v = c.kind == Kind::write ? log_->entryIs(*c.entry, Traits::ResourceKeys{},
                                                               nullptr, kUnit, stats_, false)
                                               : log_->entryDel(*c.key, nullptr, kUnit);
    if (v.value() != c.version) {
      throw std::runtime_error(
          fmt::format("entry log gave change {} the version {}", c.version, v.value()));
    }
  }

  void trimTo(uint64_t oldestKept) override {
    if (oldestKept > 1) log_->cleanupEntryLog(Asic::LogVersion(oldestKept - 1));
  }

  Tally tally() override {
    return Tally{log_->entrys(kUnit), log_->tableEntryLog()->entryLogConfigSize(),
                 log_->tableVersion().value()};
  }

  void close() override {
    log_ = nullptr;
    stats_ = nullptr;
    gi_ = nullptr;
    em_ = nullptr;
    if (!namespace_.empty()) {
      const char* root = std::getenv("VESK_SHM_ROOT");
      std::error_code ec;
      if (root && *root)
        std::filesystem::remove_all(std::string(root) + "/local/" + namespace_, ec);
      namespace_.clear();
    }
  }

 private:
  int opened_ = 0;
  std::string namespace_;
  Nimbo::Ptr<Cairn::EntityManager> em_;
  Nimbo::Ptr<Asic::GroupInterface> gi_;
  Nimbo::Ptr<Asic::SwTableStats> stats_;
  Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntryEntryLog> log_;
};

}  // namespace

void addEntryLogPeers(PeerList& peers) { peers.push_back(std::make_unique<EntryLogPeer>()); }

}  // namespace VeskPeers
