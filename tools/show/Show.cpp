#include "tools/show/Show.h"

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include "Kest/RecordType.h"
#include "tools/core/AgentMemory.h"
#include "tools/core/MemoryJson.h"
#include "tools/core/RecordColumns.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

using Row = std::vector<std::string>;

// Columns left-aligned under their headers, two spaces apart: one row per line, a cell
// never empty and without spaces, so that awk's $N is column N.
void printTable(std::ostream& out, const Row& headers, const std::vector<Row>& rows) {
  std::vector<size_t> widths(headers.size());
  for (size_t c = 0; c < headers.size(); ++c) widths[c] = headers[c].size();
  for (const Row& row : rows) {
    for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  }
  const auto print = [&](const Row& row) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line.append(widths[c] - row[c].size() + 2, ' ');
    }
    out << line << '\n';
  };
  print(headers);
  for (const Row& row : rows) print(row);
}

std::string cell(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::string percent(const Json& part) {
  return fmt::format("{:.1f}%", 100 * part["used"].get<double>());
}

// One line on `err` per part that could not be read; counts them.
size_t tellErrors(const Json& doc, std::ostream& err) {
  size_t errors = 0;
  const auto tell = [&](const std::string& where, const Json& part) {
    if (!part.is_object() || !part.contains("error")) return;
    fmt::print(err, "vesktap: show: {}: {}\n", where, part["error"].get<std::string>());
    ++errors;
  };
  for (const Json& t : doc["tables"]) {
    const std::string table = t["table"];
    tell(table + " change log", t["changeLog"]);
    for (const Json& u : t["units"]) {
      const std::string unit = fmt::format("{} unit {}", table, u["unit"].get<int>());
      tell(unit + " configuration", u);
      if (u.contains("tcam")) tell(unit + " TCAM", u["tcam"]);
    }
  }
  return errors;
}

void printChangeLogs(const Json& doc, std::ostream& out) {
  std::vector<Row> rows;
  for (const Json& t : doc["tables"]) {
    const Json& log = t["changeLog"];
    if (!log.is_object() || log.contains("error")) {
      const std::string what = log.is_null() ? "-" : "error";
      rows.push_back({t["table"], what, what, what, what, cell(t["hardwareTaken"]), "-", what});
      continue;
    }
    const uint64_t records = log["records"];
    rows.push_back({t["table"], cell(log["tableVersion"]), cell(log["records"]),
                    records == 0 ? "empty"
                                 : fmt::format("{}-{}", log["oldestVersion"].get<uint64_t>(),
                                               log["newestVersion"].get<uint64_t>()),
                    percent(log), cell(t["hardwareTaken"]), cell(t["hardwareLag"]),
                    cell(log["level"])});
  }
  printTable(out,
             {"TABLE", "VERSION", "RECORDS", "VERSIONS", "LOG_USE", "HW_TAKEN", "HW_LAG", "LEVEL"},
             rows);
}

void printUnits(const Json& doc, std::ostream& out) {
  std::vector<Row> rows;
  for (const Json& t : doc["tables"]) {
    for (const Json& u : t["units"]) {
      Row row{t["table"], cell(u["unit"])};
      if (u.contains("error")) {
        row.resize(9, "error");
      } else {
        const Json& tcam = u["tcam"];
        const bool broken = tcam.is_object() && tcam.contains("error");
        row.insert(row.end(),
                   {cell(u["liveEntries"]), cell(u["tombstones"]), percent(u), cell(u["level"]),
                    broken ? "error" : cell(tcam.value("lines", Json())),
                    broken ? "error" : cell(tcam.value("appliedVersion", Json())),
                    cell(u["notInHardware"])});
      }
      rows.push_back(std::move(row));
    }
  }
  if (rows.empty()) return;
  out << '\n';
  printTable(out,
             {"TABLE", "UNIT", "ENTRIES", "TOMBSTONES", "USE", "LEVEL", "TCAM_LINES",
              "TCAM_VERSION", "NOT_IN_TCAM"},
             rows);
}

template <class Traits>
void printEntries(const AgentMemory& memory, const ShowOptions& options, std::ostream& out) {
  using Entry = typename Traits::Entry;
  const auto columns = columnsOf(VeskTapAgg::typeRecordOf<Entry>());
  Row headers{"VERSION", "IN_TCAM"};
  for (const Column& c : columns) headers.push_back(c.name);
  for (Asic::UnitId unit : memory.units<Traits>()) {
    if (options.unit && *options.unit != unit.value()) continue;
    std::optional<UnitContents<Traits>> contents;
    try {
      contents = memory.unit<Traits>(unit, true);
    } catch (const Nimbo::Exception&) {
      continue;  // told with the units
    }
    if (!contents) continue;
    fmt::print(out, "\n{} unit {}{}\n", Traits::tableName, unit,
               contents->entries.empty() ? ": empty" : "");
    if (contents->entries.empty()) continue;
    std::vector<Row> rows;
    for (const auto& e : contents->entries) {
      const Entry entry = VeskTapAgg::entryOf(e.logEntry);
      Row row{std::to_string(e.version.value()), e.inHardware ? "yes" : "no"};
      for (const Column& c : columns) row.push_back(c.text(&entry));
      rows.push_back(std::move(row));
    }
    printTable(out, headers, rows);
  }
}

}  // namespace

size_t show(const ShowOptions& options, std::ostream& out, std::ostream& err) {
  const AgentMemory memory;
  std::set<uint16_t> units;  // of the tables shown
  forEachTable([&]<class Traits>(size_t t) {
    if (options.table && *options.table != t) return;
    for (Asic::UnitId unit : memory.units<Traits>()) units.insert(unit.value());
  });
  if (options.unit && !units.contains(*options.unit)) {
    throw std::invalid_argument(fmt::format(
        "{} has no unit {} (units: {})",
        options.table ? std::string(VeskTapAgg::kCatalogue[*options.table].name)
                      : std::string("no table type"),
        *options.unit, units.empty() ? "none" : fmt::format("{}", fmt::join(units, ", "))));
  }
  const Json doc =
      agentMemoryJson(memory, options.table, options.unit, options.entries && options.json);
  if (options.json) {
    out << doc.dump(2) << '\n';
  } else {
    printChangeLogs(doc, out);
    printUnits(doc, out);
    if (options.entries) {
      forEachTable([&]<class Traits>(size_t t) {
        if (!options.table || *options.table == t) printEntries<Traits>(memory, options, out);
      });
    }
  }
  out.flush();
  return tellErrors(doc, err);
}

}  // namespace VeskTool
