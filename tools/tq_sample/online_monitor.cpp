// Names for the columns of the three monitors' sample lines.
//   In      see the header
//   Out     see the header
//   Thread  one
//   Failure see the header
#include "online_monitor.h"

#include <algorithm>
#include <cstring>

#include "wllb_util.h"

struct column {
  const char *name, *unit;
};

// clang-format off
static constexpr column process_columns[] = {
  {"threads", ""},
  {"header file", " MB"},           {"function group file", " MB"},  {"resource file", " MB"},
  {"throwing method file", " MB"},  {"throwing class file", " MB"},  {"stack trace file", " MB"},
  {"exception message file", " MB"},{"exception class file", " MB"}, {"exception cause file", " MB"},
  {"metadata file", " MB"},         {"URL file", " MB"},             {"SQL file", " MB"},
  {"partitions not done", ""},      {"instances behind", ""},        {"last scan", " ms"},
  {"found by scans", ""},           {"errors", ""},
};

static constexpr column instance_columns[] = {
  {"flowpaths without begin", ""}, {"bad timestamps", ""},        {"bad records", ""},    {"metadata requests", ""},
  {"large flowpaths", ""},         {"lag", " partitions"},        {"late flowpaths", ""}, {"too late flowpaths", ""},
  {"dead flowpaths", ""},          {"flowpaths", ""},             {"read", " MB/min"},
};

static constexpr column flowpath_columns[] = {
  {"flowpaths in all", ""}, {"rate", "/s"}, {"average", " ms"}, {"min", " ms"}, {"max", " ms"}, {"flowpaths", ""},
  {"read", " KB/s"},
};
static constexpr column query_columns[] = {
  {"rate", "/s"}, {"average", " ms"}, {"min", " ms"}, {"max", " ms"}, {"count", ""},
};
static constexpr const char *query_groups[] = {
  "all queries", "select", "insert", "update", "delete", "create", "drop", "other",
}; // clang-format on

static constexpr size_t flowpath_values =
    std::size(flowpath_columns) + std::size(query_groups) * std::size(query_columns) + 1;

// --- words ----------------------------------------------------------------------------------------------------

static std::string named(const column *columns, size_t count, const std::string *values) {
  std::string text;
  for (size_t i = 0; i < count; ++i)
    text += wllb_format("%s%s %s%s", i > 0 ? ", " : "", columns[i].name, values[i].c_str(), columns[i].unit);
  return text;
}

static std::string process_words(std::string_view front, const std::vector<std::string> &values) {
  return wllb_format("health of %s: ", std::string(front.substr(front.find(':') + 1)).c_str()) +
         named(process_columns, std::size(process_columns), values.data()) + "\n";
}

static std::string instance_words(std::string_view front, const std::vector<std::string> &values) {
  return wllb_format("instance %s: ", std::string(front.substr(front.find(':') + 1)).c_str()) +
         named(instance_columns, std::size(instance_columns), values.data()) + "\n";
}

// Groups of queries that did not occur are left out.
static std::string flowpath_words(std::string_view front, const std::vector<std::string> &values) {
  std::string text = wllb_format("flowpaths of %s: ", std::string(front.substr(front.find(':') + 1)).c_str()) +
                     named(flowpath_columns, std::size(flowpath_columns), values.data());
  const std::string *group = &values[std::size(flowpath_columns)];
  for (const char *name : query_groups) {
    if (group[4] != "0")
      text += wllb_format("; %s: ", name) + named(query_columns, std::size(query_columns), group);
    group += std::size(query_columns);
  }
  return text + wllb_format("; exceptions %s/s\n", group->c_str());
}

struct monitor_row {
  std::string_view gdf;
  size_t values;
  std::string (*words)(std::string_view front, const std::vector<std::string> &values);
};

static constexpr monitor_row monitor_rows[] = {
    {"cm_tqp_monitor_stats.gdf", std::size(process_columns), process_words},
    {"cm_tqp_instance_monitor_stats.gdf", std::size(instance_columns), instance_words},
    {"cm_tq_fp_stats.gdf", flowpath_values, flowpath_words}};

// The values stand behind the last bar.
static std::string sample_words(const std::string &gdf, std::string_view line) {
  const std::string text(line);
  const size_t bar = text.rfind('|');
  for (const monitor_row &row : monitor_rows)
    if (row.gdf == gdf && bar != std::string::npos)
      if (const auto values = wllb_words(text.substr(bar + 1), row.values + 1); values.size() == row.values)
        return row.words(text.substr(0, bar), values);
  return wllb_format("not understood from %s: %s\n", gdf.c_str(), text.c_str());
}

// --- registration ---------------------------------------------------------------------------------------------

// 4 bytes length, 4 bytes opcode, text, NUL; the length counts what follows it.
static ssize_t take_registration(online_connection &connection, std::string_view rest, std::string *said) {
  constexpr int32_t opcode_of_registration = 162;
  constexpr int32_t longest = 4096;
  int32_t length = 0, opcode = 0;
  if (rest.size() < 8)
    return 0;
  memcpy(&length, rest.data(), 4);
  memcpy(&opcode, rest.data() + 4, 4);
  if (opcode != opcode_of_registration || length < 6 || length > longest) {
    *said = wllb_format("a monitor came with opcode %d and length %d: not a registration\n", opcode, length);
    return -1;
  }
  const size_t total = static_cast<size_t>(length) + 4;
  if (rest.size() < total)
    return 0;
  const std::string text(rest.substr(8, total - 9));
  std::vector<std::string> fields;
  for (const std::string_view field : wllb_split(text, ';'))
    fields.emplace_back(field);
  if (rest[total - 1] != '\0' || fields.size() != 5 || fields[0].empty() || fields[4] != "DVM") {
    *said = wllb_format("a monitor came with '%s': not a registration\n", text.c_str());
    return -1;
  }
  connection.name = fields[0];
  *said = wllb_format("registered: %s of %s, pid %s, controller %s\n", fields[0].c_str(), fields[1].c_str(),
                      fields[2].c_str(), fields[3].c_str());
  return static_cast<ssize_t>(total);
}

ssize_t online_take_monitor(online_connection &connection, std::string_view rest, std::string *said) {
  if (connection.name.empty())
    return take_registration(connection, rest, said);
  const size_t end = rest.find('\n');
  if (end == std::string_view::npos)
    return 0;
  *said = sample_words(connection.name, rest.substr(0, end));
  return static_cast<ssize_t>(end + 1);
}
