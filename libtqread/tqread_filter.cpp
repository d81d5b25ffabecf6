// Makes filters and asks them; see the header.
//   In      a question, names, rows
//   Out     yes or no
//   Thread  one
//   Failure words
// What a question says of names is looked up once: a row is then held against sets of ids and against numbers.
#include "tqread_filter.h"

#include "tqread_text.h"

#include <algorithm>
#include <cctype>

namespace tqread {

// --- tags -----------------------------------------------------------------------------------------------------------

// Takes a text in quotes, or what stands up to a comma or bracket, off the front.
static std::string_view take_json_value(std::string_view *json) {
  if (!json->starts_with('"')) {
    const std::string_view value = json->substr(0, json->find_first_of(",}"));
    json->remove_prefix(value.size());
    return value;
  }
  size_t end = 1;
  while (end < json->size() && (*json)[end] != '"')
    end += (*json)[end] == '\\' ? 2 : 1;
  end = std::min(end, json->size());
  const std::string_view value = json->substr(1, end - 1);
  json->remove_prefix(std::min(end + 1, json->size()));
  return value;
}

static void skip_any_of(std::string_view *json, std::string_view characters) {
  json->remove_prefix(std::min(json->find_first_not_of(characters), json->size()));
}

bool take_tag(std::string_view *json, std::string_view *name, std::string_view *value) {
  skip_any_of(json, "{, \t");
  if (!json->starts_with('"'))
    return false;
  *name = take_json_value(json);
  skip_any_of(json, ": \t");
  *value = take_json_value(json);
  return true;
}

static bool has_tag(std::string_view json, std::string_view asked) {
  const size_t equals = asked.find('=');
  const std::string_view want_name = asked.substr(0, equals);
  bool found = false;
  each_tag(json, [&](std::string_view name, std::string_view value) {
    if (equals == asked.npos)
      found = found || matches_wildcards(name, asked) || matches_wildcards(value, asked);
    else
      found = found || (matches_wildcards(name, want_name) && matches_wildcards(value, asked.substr(equals + 1)));
  });
  return found;
}

// --- making ---------------------------------------------------------------------------------------------------------

static constexpr name_kind exception_kinds[] = {name_kind::exception_class, name_kind::throwing_class,
                                                name_kind::throwing_method, name_kind::message,
                                                name_kind::cause,           name_kind::stack_trace};

uint32_t kinds_for(const question &asked) {
  uint32_t kinds = 0;
  if (!asked.url.empty())
    kinds |= kinds_of({name_kind::url});
  if (!asked.tag.empty())
    kinds |= kinds_of({name_kind::tag_set});
  if (!asked.text.empty()) {
    kinds |= kinds_of({name_kind::query});
    for (const name_kind kind : exception_kinds)
      kinds |= kinds_of({kind});
  }
  return kinds;
}

// Whether the text has the words in it, letters of either case.
static bool has_words(std::string_view text, std::string_view words) {
  const auto same = [](unsigned char a, unsigned char b) { return tolower(a) == tolower(b); };
  return std::search(text.begin(), text.end(), words.begin(), words.end(), same) != text.end();
}

// "500", "5xx", "404,5xx"
template <class Range> static bool read_statuses(std::string_view text, std::vector<Range> *ranges) {
  while (!text.empty()) {
    const std::string_view one = take_piece(&text, ',');
    int64_t number = 0;
    if (one.size() == 3 && one.ends_with("xx") && read_number(one.substr(0, 1), &number))
      ranges->push_back({number * 100, number * 100 + 99});
    else if (read_number(one, &number))
      ranges->push_back({number, number});
    else
      return false;
  }
  return !ranges->empty();
}

static std::string quoted(std::string_view text) {
  return "'" + printable(text, 200) + "'";
}

// The first part of an instance's name: "Shop" of "Shop_web1_app".
static bool is_of_tier(std::string_view instance, std::string_view tier) {
  return matches_wildcards(instance, tier) || matches_wildcards(instance, std::string(tier) + "_*");
}

// What the question says of partitions and instances that are not there. "": nothing.
static std::string missing_place(const test_run &run, const question &asked) {
  const std::vector<std::string> all = partitions(run);
  if (!asked.partition.empty() && !std::binary_search(all.begin(), all.end(), asked.partition))
    return "there is no partition " + quoted(asked.partition);
  int64_t number = 0;
  bool found_instance = asked.instance.empty(), found_tier = asked.tier.empty() || read_number(asked.tier, &number);
  for (const std::string &partition : all) {
    if (found_instance && found_tier)
      break;
    for (const std::string &instance : instances(run, partition)) {
      found_instance = found_instance || matches_wildcards(instance, asked.instance);
      found_tier = found_tier || is_of_tier(instance, asked.tier);
    }
  }
  if (!found_instance)
    return "no instance is called " + quoted(asked.instance);
  return found_tier ? "" : "no tier is called " + quoted(asked.tier);
}

void filter::learn(const name_table &names) {
  if (!asked_.url.empty())
    names.each(name_kind::url, [&](int64_t id, std::string_view text) {
      if (matches_wildcards(text, asked_.url))
        urls_.insert(id);
    });
  if (!asked_.tag.empty())
    names.each(name_kind::tag_set, [&](int64_t id, std::string_view text) {
      if (has_tag(text, asked_.tag))
        tag_sets_.insert(id);
    });
  if (asked_.text.empty())
    return;
  names.each(name_kind::query, [&](int64_t id, std::string_view text) {
    if (has_words(text, asked_.text))
      queries_.insert(id);
  });
  for (const name_kind kind : exception_kinds)
    names.each(kind, [&](int64_t id, std::string_view text) {
      if (has_words(text, asked_.text))
        exception_texts_[static_cast<size_t>(kind)].insert(id);
    });
}

// What was asked for and has no name. "": nothing.
std::string filter::missing_name() const {
  if (!asked_.url.empty() && urls_.empty())
    return "no URL matches " + quoted(asked_.url);
  if (!asked_.tag.empty() && tag_sets_.empty())
    return "no tag matches " + quoted(asked_.tag);
  const bool has_text = !queries_.empty() || std::any_of(std::begin(exception_texts_), std::end(exception_texts_),
                                                         [](const auto &ids) { return !ids.empty(); });
  return asked_.text.empty() || has_text ? "" : "no query and no exception has the text " + quoted(asked_.text);
}

std::string filter::make(const test_run &run, const name_table &names, const question &asked) {
  asked_ = asked;
  if (!asked.from.empty() && !read_utc_text(asked.from, &from_ms_))
    return quoted(asked.from) + " is not a time such as 2026-11-22 10:00";
  if (!asked.to.empty() && !read_utc_text(asked.to, &to_ms_))
    return quoted(asked.to) + " is not a time such as 2026-11-22 10:00";
  if (!asked.status.empty() && !read_statuses(asked.status, &statuses_))
    return quoted(asked.status) + " is not a status such as 500 or 5xx";
  if (!asked.tier.empty() && !read_number(asked.tier, &tier_number_))
    tier_number_ = -1;
  learn(names);
  if (allow_unknown_)
    return "";
  std::string missing = missing_place(run, asked);
  return missing.empty() ? missing_name() : missing;
}

// --- asking ---------------------------------------------------------------------------------------------------------

bool filter::takes_place(const flowpath_place &place) const {
  return (asked_.partition.empty() || place.partition == asked_.partition) &&
         (asked_.instance.empty() || matches_wildcards(place.instance, asked_.instance)) &&
         (asked_.tier.empty() || tier_number_ >= 0 || is_of_tier(place.instance, asked_.tier));
}

bool filter::takes_status(int64_t status) const {
  return std::any_of(statuses_.begin(), statuses_.end(),
                     [status](const status_range &range) { return range.from <= status && status <= range.to; });
}

bool filter::takes_row(const flowpath_place & /*place*/, const flowpath_record &row) const {
  if ((asked_.asked_flowpath && row.fpi != asked_.flowpath) || (asked_.min_ms > 0 && row.duration_ms < asked_.min_ms))
    return false;
  if (row.begin_utc_ms < from_ms_ || row.begin_utc_ms >= to_ms_)
    return false;
  if ((!asked_.url.empty() && !urls_.contains(row.url_id)) ||
      (!asked_.tag.empty() && !tag_sets_.contains(row.tag_set_id)))
    return false;
  if ((asked_.errors && row.errors <= 0 && row.status < 400) || (!statuses_.empty() && !takes_status(row.status)))
    return false;
  if (tier_number_ >= 0 && row.tier != tier_number_)
    return false;
  return asked_.correlation.empty() || matches_wildcards(row.correlation_id, asked_.correlation) ||
         matches_wildcards(row.correlation_id.substr(0, row.correlation_id.rfind(':')), asked_.correlation);
}

bool filter::asks_of_rows() const {
  return asked_.asked_flowpath || asked_.min_ms > 0 || !asked_.from.empty() || !asked_.to.empty() ||
         !asked_.url.empty() || !asked_.tag.empty() || asked_.errors || !statuses_.empty() || tier_number_ >= 0 ||
         !asked_.correlation.empty() || !asked_.text.empty();
}

bool filter::takes_whole(flowpath_reader *reader, const flowpath_place &place, std::string_view row_bytes) {
  if (asked_.text.empty())
    return true;
  if (!reader->read(place, row_bytes, WITH_SIDE_ROWS, &whole_))
    return false;
  const auto has = [&](name_kind kind, int64_t id) { return exception_texts_[static_cast<size_t>(kind)].contains(id); };
  for (const sql_timing_record &row : whole_.sql_timings)
    if (queries_.contains(row.query_id))
      return true;
  for (const sql_execution_record &row : whole_.sql_executions)
    if (queries_.contains(row.query_id))
      return true;
  return std::any_of(whole_.exceptions.begin(), whole_.exceptions.end(), [&](const exception_record &row) {
    return has(name_kind::exception_class, row.class_id) || has(name_kind::throwing_class, row.throwing_class_id) ||
           has(name_kind::throwing_method, row.throwing_method_id) || has(name_kind::message, row.message_id) ||
           has(name_kind::cause, row.cause_id) || has(name_kind::stack_trace, row.stack_id) ||
           (row.backend_type == 2 && queries_.contains(row.sub_type));
  });
}

} // namespace tqread
