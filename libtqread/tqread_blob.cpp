// The grammar of the blob, both forms, and of the callout text; see the header.
//   In      texts that may be damaged
//   Out     tokens and rows
//   Thread  any
//   Failure token_kind::bad for a token that is not of the grammar
// Samples:  17:99_0::0_120   17:99:1:abc_0:5:1_120   17:99_1_155_4:0:0:0:0   17:99_1_155_0   17_2     classic form
//           17:99_0:3:1_120   17:0_1:6:1_155_4:0:0:0:0                                             exit form
//           T1.2.12:4:3.5:1:0:100:0:::   E13:4:4:2:9:1500:500:2   t5   e   G4:2:9:5:1:9:20:3:1   C4
#include "tqread_blob.h"

#include "tqread_rows.h"
#include "tqread_text.h"

#include <algorithm>

namespace tqread {

// --- method tokens ----------------------------------------------------------------------------------------------

// Pieces of a short field, at most `most` of them in the array. How many there are.
static size_t split_short(std::string_view text, std::string_view *pieces, size_t most) {
  size_t count = 0, from = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != ':')
      continue;
    if (count < most)
      pieces[count] = text.substr(from, i - from);
    ++count;
    from = i + 1;
  }
  return count;
}

// "17", "17:99", "17:99:1" or "17:99:1:abc"
static bool read_method_field(std::string_view field, blob_token *token) {
  std::string_view parts[3];
  const size_t count = split_short(field, parts, 3);
  if (!read_number(parts[0], &token->method_id))
    return false;
  token->has_thread = count > 1;
  token->is_async = count > 2;
  if (count > 3)
    token->task_id = field.substr(static_cast<size_t>(parts[2].data() + parts[2].size() - field.data()) + 1);
  return !token->has_thread || read_number(parts[1], &token->thread_id);
}

// "0", "0:5", "0::1" or "0:5:1"
static bool read_event_field(std::string_view field, blob_token *token, int64_t *event_id) {
  std::string_view parts[3];
  int64_t flag = 0;
  const size_t count = split_short(field, parts, 3);
  token->event_parts = static_cast<int>(count);
  token->has_number = count > 1 && !parts[1].empty();
  if (count > 3 || !read_number(parts[0], event_id) || (token->has_number && !read_number(parts[1], &token->number)) ||
      (count == 3 && !read_number(parts[2], &flag)))
    return false;
  token->logs = flag != 0;
  return true;
}

// Five times, or the lone CPU time of a forced exit. A bare "e" of the exit form follows without a separator: it is given
// back to *rest.
static bool read_times(std::string_view field, bool exit_form, std::string_view *rest, blob_token *token) {
  const std::string_view times = field.substr(0, field.find_first_not_of("0123456789:-"));
  if (times.size() < field.size()) {
    if (!exit_form || field[times.size()] != 'e')
      return false;
    const char *const from = times.data() + times.size();
    *rest = {from, static_cast<size_t>(rest->data() + rest->size() - from)};
  }
  std::string_view parts[5];
  const size_t count = split_short(times, parts, 5);
  token->is_forced = count == 1;
  for (size_t i = 0; i < count && i < 5; ++i)
    if (!read_number(parts[i], &token->times_ms[i]))
      return false;
  return count == 1 || count == 5;
}

static bool read_method_token(std::string_view method_field, bool exit_form, std::string_view *rest,
                              blob_token *token) {
  int64_t event_id = 0;
  if (!read_method_field(method_field, token) || !read_event_field(take_piece(rest, '_'), token, &event_id))
    return false;
  token->kind = event_id == 0 ? token_kind::entry : event_id == 2 ? token_kind::uninstrumented : token_kind::exit;
  if (token->kind == token_kind::uninstrumented)
    return token->event_parts == 1 && !token->has_thread;
  if (!read_number(take_piece(rest, '_'), &token->time_ms))
    return false;
  return token->kind == token_kind::entry || read_times(take_piece(rest, '_'), exit_form, rest, token);
}

// --- callout tokens ---------------------------------------------------------------------------------------------

constexpr std::string_view callout_letters = "TtxcgeEaAGC";

// What stands after the resource: delays or none, then what the kind has there.
static bool read_callout_tail(std::string_view rest, bool has_tail, callout_token *token) {
  std::string_view parts[4];
  const size_t count = has_tail ? split(rest, ':', parts, 4) : 0;
  const size_t own = token->letter == 'E' ? 0 : token->letter == 'a' || token->letter == 'A' ? 2 : 1;
  const bool has_parameter = token->letter == 'T' && count > 3;
  if (count != own && count != own + 2 && !has_parameter)
    return false;
  if (count > own) {
    token->net_request_ms = take_piece(&rest, ':');
    token->net_response_ms = take_piece(&rest, ':');
  }
  if (own == 2)
    return read_number(take_piece(&rest, ':'), &token->parent_number) && read_number(rest, &token->flowpath);
  if (own == 1) {
    token->status = take_piece(&rest, ':');
    token->parameter = rest;
  }
  return true;
}

// backend : duration : type : query : start [: status] : resource, then the tail.
static bool read_callout_parts(std::string_view rest, callout_token *token) {
  const std::string_view backend = take_piece(&rest, ':');
  token->duration_ms = take_piece(&rest, ':');
  token->backend_type = take_piece(&rest, ':');
  const std::string_view query = take_piece(&rest, ':');
  token->start_ms = take_piece(&rest, ':');
  if (token->letter == 'E')
    token->status = take_piece(&rest, ':');
  const std::string_view resource = rest.substr(0, rest.find(':'));
  const bool has_tail = resource.size() < rest.size();
  rest.remove_prefix(has_tail ? resource.size() + 1 : resource.size());
  return read_number(backend, &token->backend_id) && read_number(query, &token->query_id) &&
         read_number(resource, &token->resource_id) && read_callout_tail(rest, has_tail, token);
}

// "4:2:9:5:1:9:20:3:1"
static bool read_group_token(std::string_view rest, callout_token *token) {
  int64_t type = 0;
  const std::string_view backend = take_piece(&rest, ':');
  token->backend_type = take_piece(&rest, ':');
  const std::string_view query = take_piece(&rest, ':');
  token->values = rest;
  return read_number(backend, &token->backend_id) && read_number(token->backend_type, &type) &&
         read_number(query, &token->query_id);
}

static bool read_callout_token(std::string_view text, callout_token *token) {
  *token = {};
  token->letter = text[0];
  std::string_view rest = text.substr(1);
  if (token->letter == 'C')
    return read_number(rest, &token->backend_id);
  if (token->letter == 'G')
    return read_group_token(rest, token);
  token->is_bare = rest.find(':') == rest.npos;
  token->number = take_piece(&rest, ':');
  if (token->is_bare)
    return token->letter == 't' || token->letter == 'x' || token->letter == 'e';
  return read_callout_parts(rest, token);
}

// --- the blob ---------------------------------------------------------------------------------------------------

// The piece begins no token: it goes on with the callout before it, whose text held a '_'.
static bool is_rest_of_callout(std::string_view piece) {
  if (piece.empty())
    return false;
  if (callout_letters.find(piece[0]) != piece.npos)
    piece.remove_prefix(1);
  return !piece.empty() && piece.find_first_of("0123456789-.:") != 0;
}

// A callout's text. In the exit form it may hold '_'.
static std::string_view take_callout(std::string_view *rest, bool exit_form) {
  std::string_view text = take_piece(rest, '_');
  while (exit_form && is_rest_of_callout(rest->substr(0, rest->find('_')))) {
    const std::string_view more = take_piece(rest, '_');
    text = {text.data(), static_cast<size_t>(more.data() + more.size() - text.data())};
  }
  return text;
}

bool blob_cursor::next(blob_token *token) {
  while (!rest_.empty() && rest_.front() == '_')
    rest_.remove_prefix(1);
  if (rest_.empty())
    return false;
  const char *const begin = rest_.data();
  token->kind = token_kind::callout;
  bool good = false;
  if (callout_letters.find(*begin) != callout_letters.npos) {
    token->text = take_callout(&rest_, exit_form_);
    good = read_callout_token(token->text, &token->callout);
  } else {
    token->thread_id = token->number = 0;
    token->task_id = {};
    token->logs = token->is_forced = false;
    const std::string_view method_field = take_piece(&rest_, '_');
    good = read_method_token(method_field, exit_form_, &rest_, token);
    token->text = {begin, static_cast<size_t>(rest_.data() - begin)};
    if (token->text.ends_with('_'))
      token->text.remove_suffix(1);
  }
  if (!good)
    token->kind = token_kind::bad;
  return true;
}

// The first exit says: in the exit form its event field has three parts, in the classic one two at most.
blob_cursor::blob_cursor(std::string_view text) : rest_(text), exit_form_(true) {
  blob_token token = {};
  bool found = false;
  while (!found && next(&token))
    found = token.kind == token_kind::exit;
  exit_form_ = found && token.event_parts == 3;
  rest_ = text;
}

// --- the callout text -------------------------------------------------------------------------------------------

constexpr size_t callout_columns = 19;
constexpr size_t cut_row_length = 2047; // bytes of a row that was cut, the '|' before it included

// Takes a row's columns; the last one ends at a '|' or with the text. False when there are fewer.
static bool take_row(std::string_view *text, std::string_view *cells) {
  std::string_view rest = *text;
  for (size_t i = 0; i + 1 < callout_columns; ++i) {
    const size_t comma = rest.find(',');
    if (comma == rest.npos)
      return false;
    cells[i] = rest.substr(0, comma);
    rest.remove_prefix(comma + 1);
  }
  std::string_view &last = cells[callout_columns - 1];
  last = rest.substr(0, rest.find('|'));
  rest.remove_prefix(last.size());
  *text = rest;
  return last.find(',') == last.npos;
}

bool callout_rows::next(callout_record *row) {
  std::string_view cells[callout_columns], rest = rest_;
  const bool first = !rest.starts_with('|');
  rest.remove_prefix(first ? 0 : 1);
  const size_t most = cut_row_length - (first ? 0 : 1);
  const bool may_be_cut = rest.size() == most || (rest.size() > most && rest[most] == '|');
  std::string_view after = rest;
  cut_ = !take_row(&after, cells) || rest.size() - after.size() > most;
  if (cut_) {
    if (!may_be_cut)
      return false;
    std::fill(std::begin(cells), std::end(cells), std::string_view());
    split(rest.substr(0, most), ',', cells, callout_columns);
    after = rest.substr(most);
  }
  int64_t ignored = 0;
  if (!read_number(cells[0], &ignored) || cells[1].size() != 1)
    return false;
  any_record record;
  read_callout_cells(cells, epoch_diff_s_, &record);
  *row = record.as<callout_record>();
  rest_ = after;
  return true;
}

bool read_group_values(std::string_view values, group_numbers *numbers) {
  if (!read_number(take_piece(&values, ':'), &numbers->count))
    return false;
  read_real(take_piece(&values, ':'), &numbers->shortest_ms);
  read_real(take_piece(&values, ':'), &numbers->longest_ms);
  read_real(take_piece(&values, ':'), &numbers->total_ms);
  take_piece(&values, ':');
  numbers->errors = number_or(values, 0);
  return true;
}

bool read_group(const callout_record &row, group_numbers *numbers) {
  *numbers = {};
  if (row.kind == "C") {
    *numbers = {0, row.count, row.errors, row.shortest_ms, row.longest_ms, row.total_ms};
    return true;
  }
  if (row.kind != "G")
    return false;
  std::string_view rest = row.backend_type;
  numbers->type = number_or(take_piece(&rest, ':'), 0);
  take_piece(&rest, ':'); // the query as the agent counts
  return read_group_values(rest, numbers);
}

// --- backend types ----------------------------------------------------------------------------------------------

static constexpr backend_type backend_types[] = {
    // clang-format off
  { 1, "HTTP",      "http",      backend_group::http},
  { 2, "JDBC",      "other_sql", backend_group::database},
  { 5, "database",  "other_sql", backend_group::database},
  { 9, "Cassandra", "cassandra", backend_group::database},
  {10, "JDBC",      "other_sql", backend_group::database},
  {11, "messaging", "jms",       backend_group::messaging},
  {12, "messaging", "jms",       backend_group::messaging},
  {13, "messaging", "jms",       backend_group::messaging},
  {15, "MongoDB",   "mongodb",   backend_group::database},
  {16, "Redis",     "redis",     backend_group::database},
  {18, "Neo4j",     "neo4j",     backend_group::database},
  {19, "Cloudant",  "cloudant",  backend_group::database},
  {20, "Bigtable",  "gcp.bigtable", backend_group::database},
  {21, "BigQuery",  "gcp.bigquery", backend_group::database},
  {22, "FTP",       "ftp",       backend_group::database},
  {25, "DynamoDB",  "aws.dynamodb", backend_group::database},
  {26, "HTTP",      "http",      backend_group::http},
}; // clang-format on

backend_type backend_type_of(int64_t number) {
  for (const backend_type &type : backend_types)
    if (type.number == number)
      return type;
  return {number, nullptr, nullptr, backend_group::other};
}

bool is_database(std::string_view type) {
  return backend_type_of(number_or(type, -1)).group == backend_group::database;
}

struct callout_word {
  char letter;
  const char *words;
};

static constexpr callout_word callout_words[] = {
    {'T', "call"},        {'t', "thread call"},           {'x', "new segment"},
    {'c', "callout (c)"}, {'g', "callout (g)"},           {'e', "error mark"},
    {'E', "error"},       {'a', "asynchronous call"},     {'G', "grouped queries"},
    {'C', "cache calls"}, {'A', "asynchronous response"},
};

const char *words_of_callout(char letter) {
  for (const callout_word &row : callout_words)
    if (row.letter == letter)
      return row.words;
  return "callout";
}

} // namespace tqread
