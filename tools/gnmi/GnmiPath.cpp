#include "tools/gnmi/GnmiPath.h"

#include <charconv>
#include <chrono>

#include <fmt/format.h>

#include "tools/core/Json.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

GnmiError invalid(const std::string& message) {
  return GnmiError(grpc::StatusCode::INVALID_ARGUMENT, message);
}

template <class Names>
std::string nameList(const Names& names) {
  std::string list;
  for (std::string_view n : names) list.append(list.empty() ? "" : ", ").append(n);
  return list;
}

uint64_t numberOf(const std::string& text, uint64_t max, std::string_view what) {
  uint64_t n = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
  if (error != std::errc() || end != text.data() + text.size() || n > max) {
    throw invalid(fmt::format("{} '{}' is not a number from 0 to {}", what, text, max));
  }
  return n;
}

// The elements of prefix and path as one walk, each checked against what may stand there.
class ElemWalk {
 public:
  ElemWalk(const gnmi::Path& prefix, const gnmi::Path& path) {
    for (const gnmi::Path* p : {&prefix, &path}) {
      if (!p->origin().empty() && p->origin() != "vesktap") {
        throw GnmiError(
            grpc::StatusCode::UNIMPLEMENTED,
            fmt::format("origin '{}' is not served: leave it out or give 'vesktap'", p->origin()));
      }
      for (const auto& e : p->elem()) elems_.push_back(&e);
    }
  }

  bool done() const noexcept { return next_ == elems_.size(); }

  // The next element, which must be named one of `names` (a container's children).
  const gnmi::PathElem& take(std::span<const std::string_view> names, std::string_view where) {
    const gnmi::PathElem& e = *elems_[next_++];
    for (std::string_view n : names) {
      if (e.name() == n) return e;
    }
    throw invalid(fmt::format("{} has no '{}': give one of {}", where, e.name(), nameList(names)));
  }

  // The next element as a leaf of `leaves` ("*" for all; any name when `leaves` is empty,
  // for the caller to check); nothing may follow it.
  std::string takeLeaf(std::span<const std::string_view> leaves, std::string_view where) {
    const gnmi::PathElem& e = *elems_[next_];
    if (e.name() == "*" || leaves.empty()) {
      ++next_;
    } else {
      take(leaves, where);
    }
    noKeys(e);
    if (!done()) throw invalid(fmt::format("'{}' is a leaf: nothing follows it", e.name()));
    return e.name() == "*" ? std::string() : e.name();
  }

  static void noKeys(const gnmi::PathElem& e) {
    if (!e.key().empty()) throw invalid(fmt::format("'{}' takes no keys", e.name()));
  }

 private:
  std::vector<const gnmi::PathElem*> elems_;
  size_t next_ = 0;
};

constexpr std::string_view kTop[] = {"agent", "tables"};
constexpr std::string_view kState[] = {"state"};
constexpr std::string_view kTable[] = {"table"};
constexpr std::string_view kTableChildren[] = {"state", "units"};
constexpr std::string_view kUnit[] = {"unit"};
constexpr std::string_view kUnitChildren[] = {"state", "entries"};
constexpr std::string_view kEntry[] = {"entry"};

void tableKeys(const gnmi::PathElem& e, PathSelector& s) {
  for (const auto& [name, value] : e.key()) {
    if (name == "name") {
      if (value == "*") continue;
      s.table = tableIndexOf(value);
      if (*s.table == kTableCount) {
        throw invalid(fmt::format("no table '{}': give one of {}, or *", value, tableNameList()));
      }
    } else if (name == "since") {
      s.since = numberOf(value, UINT64_MAX, "since");
    } else {
      throw invalid(fmt::format("table has no key '{}': give name, since", name));
    }
  }
}

void unitKeys(const gnmi::PathElem& e, PathSelector& s) {
  for (const auto& [name, value] : e.key()) {
    if (name != "id") throw invalid(fmt::format("unit has no key '{}': give id", name));
    if (value != "*") s.unit = uint16_t(numberOf(value, UINT16_MAX, "unit id"));
  }
}

void leafOf(gnmi::Notification& n, const Leaf& leaf, bool withName) {
  gnmi::Update* u = n.add_update();
  if (withName) u->mutable_path()->add_elem()->set_name(std::string(leaf.name));
  gnmi::TypedValue* v = u->mutable_val();
  std::visit(
      [&](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, bool>) v->set_bool_val(x);
        if constexpr (std::is_same_v<T, uint64_t>) v->set_uint_val(x);
        if constexpr (std::is_same_v<T, double>) v->set_double_val(x);
        if constexpr (std::is_same_v<T, std::string>) v->set_string_val(x);
      },
      leaf.value);
}

Json jsonOf(const LeafValue& value) {
  return std::visit([](const auto& x) { return Json(x); }, value);
}

}  // namespace

PathSelector selectorOf(const gnmi::Path& prefix, const gnmi::Path& path) {
  ElemWalk walk(prefix, path);
  PathSelector s;
  if (walk.done()) return s;
  const gnmi::PathElem& top = walk.take(kTop, "the tree");
  ElemWalk::noKeys(top);
  if (top.name() == "agent") {
    s.parts = PathSelector::agentState;
    if (walk.done()) return s;
    ElemWalk::noKeys(walk.take(kState, "agent"));
    if (!walk.done()) s.leaf = walk.takeLeaf(kAgentLeaves, "agent/state");
    return s;
  }
  s.parts = PathSelector::tableState | PathSelector::unitState | PathSelector::entries;
  if (walk.done()) return s;
  tableKeys(walk.take(kTable, "tables"), s);
  if (walk.done()) return s;
  const gnmi::PathElem& tableChild = walk.take(kTableChildren, "table");
  ElemWalk::noKeys(tableChild);
  if (tableChild.name() == "state") {
    s.parts = PathSelector::tableState;
    if (!walk.done()) s.leaf = walk.takeLeaf(kTableLeaves, "table/state");
    return s;
  }
  s.parts = PathSelector::unitState | PathSelector::entries;
  if (walk.done()) return s;
  unitKeys(walk.take(kUnit, "units"), s);
  if (walk.done()) return s;
  const gnmi::PathElem& unitChild = walk.take(kUnitChildren, "unit");
  ElemWalk::noKeys(unitChild);
  if (unitChild.name() == "state") {
    s.parts = PathSelector::unitState;
    if (!walk.done()) s.leaf = walk.takeLeaf(kUnitLeaves, "unit/state");
    return s;
  }
  s.parts = PathSelector::entries;
  if (walk.done()) return s;
  const gnmi::PathElem& entry = walk.take(kEntry, "entries");
  for (const auto& [name, value] : entry.key()) {
    if (value != "*") s.keyFields.emplace_back(name, value);
  }
  // The entry's field names depend on the table: the reader checks them and the leaf.
  if (!walk.done()) s.leaf = walk.takeLeaf({}, "entry");
  return s;
}

gnmi::Path agentStatePath() {
  gnmi::Path p;
  p.add_elem()->set_name("agent");
  p.add_elem()->set_name("state");
  return p;
}

gnmi::Path tablePath(std::string_view table) {
  gnmi::Path p;
  p.add_elem()->set_name("tables");
  gnmi::PathElem* e = p.add_elem();
  e->set_name("table");
  (*e->mutable_key())["name"] = std::string(table);
  return p;
}

gnmi::Path unitPath(std::string_view table, uint16_t unit) {
  gnmi::Path p = tablePath(table);
  p.add_elem()->set_name("units");
  gnmi::PathElem* e = p.add_elem();
  e->set_name("unit");
  (*e->mutable_key())["id"] = std::to_string(unit);
  return p;
}

gnmi::Path entryPath(std::string_view table, uint16_t unit,
                     std::span<const std::pair<std::string, std::string>> keyFields) {
  gnmi::Path p = unitPath(table, unit);
  p.add_elem()->set_name("entries");
  gnmi::PathElem* e = p.add_elem();
  e->set_name("entry");
  for (const auto& [name, value] : keyFields) (*e->mutable_key())[name] = value;
  return p;
}

std::string pathText(const gnmi::Path& path) {
  std::string text;
  for (const auto& e : path.elem()) {
    text.append("/").append(e.name());
    // Keys in name order, as a map would print them: the text is stable.
    std::vector<std::pair<std::string, std::string>> keys(e.key().begin(), e.key().end());
    std::sort(keys.begin(), keys.end());
    for (const auto& [k, v] : keys) text.append(fmt::format("[{}={}]", k, v));
  }
  return text.empty() ? "/" : text;
}

gnmi::Encoding checkedEncoding(gnmi::Encoding encoding) {
  if (encoding == gnmi::JSON || encoding == gnmi::JSON_IETF || encoding == gnmi::PROTO) {
    return encoding;
  }
  throw GnmiError(grpc::StatusCode::UNIMPLEMENTED,
                  fmt::format("encoding {} is not served: give JSON, JSON_IETF or PROTO",
                              gnmi::Encoding_Name(encoding)));
}

namespace {

// The notification's updates of `node`'s leaves; its prefix is set already.
void fillUpdates(gnmi::Notification& n, const Node& node, gnmi::Encoding encoding,
                 std::string_view leaf, int64_t timestamp, uint32_t duplicates) {
  n.set_timestamp(timestamp);
  if (encoding == gnmi::PROTO) {
    for (const Leaf& l : node.leaves) {
      if (leaf.empty() || l.name == leaf) leafOf(n, l, true);
    }
  } else {
    Json j = Json::object();
    for (const Leaf& l : node.leaves) {
      if (leaf.empty()) j[std::string(l.name)] = jsonOf(l.value);
      if (l.name == leaf) j = jsonOf(l.value);
    }
    if (!leaf.empty() && j.is_object()) return;  // not one of the node's leaves
    gnmi::Update* u = n.add_update();
    if (!leaf.empty()) u->mutable_path()->add_elem()->set_name(std::string(leaf));
    const std::string text = j.dump();
    if (encoding == gnmi::JSON) {
      u->mutable_val()->set_json_val(text);
    } else {
      u->mutable_val()->set_json_ietf_val(text);
    }
  }
  if (duplicates > 0) {
    for (auto& u : *n.mutable_update()) u.set_duplicates(duplicates);
  }
}

}  // namespace

gnmi::Notification notificationOf(const Node& node, gnmi::Encoding encoding, std::string_view leaf,
                                  int64_t timestamp, uint32_t duplicates) {
  gnmi::Notification n;
  fillNotification(n, node, encoding, leaf, timestamp, duplicates);
  return n;
}

void fillNotification(gnmi::Notification& n, const Node& node, gnmi::Encoding encoding,
                      std::string_view leaf, int64_t timestamp, uint32_t duplicates) {
  *n.mutable_prefix() = node.path;
  fillUpdates(n, node, encoding, leaf, timestamp, duplicates);
}

void fillNotification(gnmi::Notification& n, Node&& node, gnmi::Encoding encoding,
                      std::string_view leaf, int64_t timestamp, uint32_t duplicates) {
  n.mutable_prefix()->Swap(&node.path);
  fillUpdates(n, node, encoding, leaf, timestamp, duplicates);
}

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace VeskTool
