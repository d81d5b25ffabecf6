// How tqtop's pictures look; see the header.

#include "top_view.h"

#include "wllb_json_writer.h"
#include "wllb_util.h"

#include <numeric>

const char *const top_legend = "instance     application instance, Tier_Server_App\n"
                               "partition    the partition that is read\n"
                               "lag          bytes of its raw file not yet read\n"
                               "parts        partitions still to come\n"
                               "lines/s      lines read a second, over the interval\n"
                               "fpaths/s     flowpaths written a second; their rows come in batches\n"
                               "open         flowpaths in flight (with --open)\n"
                               "errors       since the health sample before; their kinds stand below the table\n"
                               "-            not known (yet)\n";

constexpr size_t name_width = 24;

// At most name_width columns, and nothing that a terminal would take as its own.
static std::string shown_name(const std::string &name) {
  std::string shown = name;
  if (shown.size() > name_width)
    shown = shown.substr(0, name_width / 2 - 1) + ".." + shown.substr(shown.size() - (name_width / 2 - 1));
  for (char &c : shown)
    if (static_cast<unsigned char>(c) < ' ' || static_cast<unsigned char>(c) >= 0x7f)
      c = '?';
  return shown;
}

// Five columns: 999, 12.4M, 7.0G.
static std::string shown_bytes(const std::optional<int64_t> &bytes) {
  if (!bytes)
    return "-";
  auto value = static_cast<double>(*bytes);
  const char *unit = "";
  for (const char *const next : {"K", "M", "G", "T"}) {
    if (value < 1000)
      break;
    value /= 1024;
    unit = next;
  }
  return *unit && value < 99.95 ? wllb_format("%.1f%s", value, unit) : wllb_format("%.0f%s", value, unit);
}

static std::string shown_rate(const std::optional<double> &rate) {
  if (!rate)
    return "-";
  return *rate < 99.95 ? wllb_format("%.1f", *rate) : wllb_format("%.0f", *rate);
}

static std::string shown_count(const std::optional<int64_t> &count) {
  return count ? std::to_string(*count) : "-";
}

static std::optional<int64_t> sum_of(const std::optional<top_errors> &errors) {
  if (!errors)
    return std::nullopt;
  return std::accumulate(errors->begin(), errors->end(), int64_t{0});
}

static std::string error_line(const top_row &row) {
  std::string line;
  for (size_t i = 0; i < top_error_kinds; ++i)
    if (row.errors && (*row.errors)[i] > 0)
      line += wllb_format("%s %lld %s", line.empty() ? "" : ",", static_cast<long long>((*row.errors)[i]),
                          top_error_names[i]);
  if (line.empty())
    return "";
  line = shown_name(row.instance) + ":" + line;
  if (line.size() > 80) // numbers are huge
    line.insert(line.rfind(',', 80) + 1, "\n ");
  return line + "\n";
}

std::string top_table(pid_t pid, const std::vector<top_row> &rows) {
  std::string out = wllb_format("tqp %d, %s, %zu instances\n", static_cast<int>(pid),
                                wllb_local_time_text("%H:%M:%S", wllb_now()).c_str(), rows.size());
  out += wllb_format("%-24s %14s %6s %5s %8s %8s %4s %4s\n", "instance", "partition", "lag", "parts", "lines/s",
                     "fpaths/s", "open", "errs");
  std::string errors;
  for (const top_row &row : rows) {
    out += wllb_format("%-24s %14.14s %6s %5lld %8s %8s %4s %4s\n", shown_name(row.instance).c_str(),
                       row.partition.c_str(), shown_bytes(row.lag).c_str(), static_cast<long long>(row.partitions_left),
                       shown_rate(row.lines).c_str(), shown_rate(row.flowpaths).c_str(), shown_count(row.open).c_str(),
                       shown_count(sum_of(row.errors)).c_str());
    errors += error_line(row);
  }
  return out + errors;
}

template <class Number>
static void put_known(wllb_json_writer &json, const char *name, const std::optional<Number> &value) {
  if (value)
    json.member(name, *value);
  else
    json.key(name).null();
}

std::string top_json(pid_t pid, const std::vector<top_row> &rows) {
  std::string out;
  wllb_json_writer json([&out](std::string_view bytes) {
    out += bytes;
    return true;
  });
  json.begin_object().member("ms", get_ms_stamp_tqp()).member("pid", int64_t{pid});
  json.key("instances").begin_array();
  for (const top_row &row : rows) {
    json.begin_object().member("instance", row.instance).member("partition", row.partition);
    put_known(json, "lag_bytes", row.lag);
    json.member("partitions_left", row.partitions_left);
    put_known(json, "lines_per_second", row.lines);
    put_known(json, "flowpaths_per_second", row.flowpaths);
    put_known(json, "open_flowpaths", row.open);
    json.key("errors");
    if (row.errors) {
      json.begin_object();
      for (size_t i = 0; i < top_error_kinds; ++i)
        json.member(top_error_names[i], (*row.errors)[i]);
      json.end_object();
    } else {
      json.null();
    }
    json.end_object();
  }
  json.end_array().end_object().end_line().finish();
  return out;
}
