// The grammar of the rewritten blob, both forms, and of the callout text.
//   In      texts that may be damaged
//   Out     tokens and rows
//   Thread  one
//   Failure TOKEN_BAD for a token that is not of the grammar
// Samples:  17:99_0::0_120   17:99:1:abc_0:5:1_120   17:99_1_155_4:0:0:0:0   17:99_1_155_0   17_2     classic form
//           17:99_0:3:1_120   17:0_1:6:1_155_4:0:0:0:0                                             exit form
//           T1.2.12:4:3.5:1:0:100:0:::   E13:4:4:2:9:1500:500:2   t5   e   G4:2:9:5:1:9:20:3:1   C4
#include "show_blob.h"

#include <algorithm>

// --- method tokens --------------------------------------------------------------------------------------------------

// Takes the text before the separator off the front, and the separator. At the end of the text: all of it.
static std::string_view take_piece(std::string_view *text, char separator) {
  const std::string_view piece = text->substr(0, text->find(separator));
  text->remove_prefix(piece.size() < text->size() ? piece.size() + 1 : piece.size());
  return piece;
}

// "17", "17:99", "17:99:1" or "17:99:1:abc"
static bool read_method_field(std::string_view field, show_token *token) {
  std::string_view parts[4];
  const size_t count = show_split(field, ':', parts, 3);
  if (!show_number(parts[0], &token->method_id))
    return false;
  token->has_thread = count > 1;
  token->is_async = count > 2;
  if (count > 3)
    token->task_id = field.substr(static_cast<size_t>(parts[2].data() + parts[2].size() - field.data()) + 1);
  return !token->has_thread || show_number(parts[1], &token->thread_id);
}

// "0", "0:5", "0::1" or "0:5:1"
static bool read_event_field(std::string_view field, show_token *token, int64_t *event_id) {
  std::string_view parts[3];
  const size_t count = show_split(field, ':', parts, 3);
  token->event_parts = static_cast<int>(count);
  token->has_seq_num = count > 1 && !parts[1].empty();
  return count <= 3 && show_number(parts[0], event_id) &&
         (!token->has_seq_num || show_number(parts[1], &token->seq_num)) && (count < 3 || show_is_number(parts[2]));
}

// Five times, or the lone CPU time of a forced exit. A bare "e" of the exit form follows without a separator: it is given
// back to the blob.
static bool read_times(std::string_view field, show_blob *blob, show_token *token) {
  const std::string_view times = field.substr(0, field.find_first_not_of("0123456789:-"));
  if (times.size() < field.size()) {
    if (!blob->exit_form || field[times.size()] != 'e')
      return false;
    blob->rest = {times.data() + times.size(),
                  static_cast<size_t>(blob->rest.data() + blob->rest.size() - (times.data() + times.size()))};
  }
  std::string_view parts[5];
  const size_t count = show_split(times, ':', parts, 5);
  token->is_forced = count == 1;
  for (size_t i = 0; i < count && i < 5; ++i)
    if (!show_number(parts[i], &token->times[i]))
      return false;
  return count == 1 || count == 5;
}

static bool read_method_token(std::string_view method_field, show_blob *blob, show_token *token) {
  int64_t event_id = 0;
  if (!read_method_field(method_field, token) || !read_event_field(take_piece(&blob->rest, '_'), token, &event_id))
    return false;
  token->kind = event_id == 0 ? TOKEN_ENTRY : event_id == 2 ? TOKEN_UNINSTRUMENTED : TOKEN_EXIT;
  if (token->kind == TOKEN_UNINSTRUMENTED)
    return token->event_parts == 1 && !token->has_thread;
  if (!show_number(take_piece(&blob->rest, '_'), &token->time))
    return false;
  return token->kind == TOKEN_ENTRY || read_times(take_piece(&blob->rest, '_'), blob, token);
}

// --- callout tokens -----------------------------------------------------------------------------------------------------

constexpr std::string_view callout_letters = "TtxcgeEaAGC";

bool show_is_database_type(std::string_view backend_type) {
  static constexpr int64_t types[] = {2, 5, 9, 10, 15, 16, 18, 19, 20, 21, 22, 25};
  const int64_t type = show_number_or(backend_type, -1);
  for (const int64_t database : types)
    if (type == database)
      return true;
  return false;
}

// ":4:6" or "::", when both parts are there.
static void take_net_delay(std::string_view *rest, show_token *token) {
  std::string_view text = *rest;
  token->net_request = take_piece(&text, ':');
  token->net_response = take_piece(&text, ':');
  *rest = text;
}

// What stands behind the resource: delays or none, then what the kind has there.
static bool read_callout_tail(std::string_view rest, bool has_tail, show_token *token) {
  std::string_view parts[4];
  const size_t count = has_tail ? show_split(rest, ':', parts, 4) : 0;
  const size_t own = token->letter == 'E' ? 0 : token->letter == 'a' || token->letter == 'A' ? 2 : 1;
  const bool has_parameter = token->letter == 'T' && count > 3;
  if (count != own && count != own + 2 && !has_parameter)
    return false;
  if (count > own)
    take_net_delay(&rest, token);
  if (own == 2)
    return show_number(take_piece(&rest, ':'), &token->parent_seq_num) && show_number(rest, &token->flowpath);
  if (own == 1) {
    token->status = take_piece(&rest, ':');
    token->parameter = rest;
  }
  return true;
}

// backend : duration : type : query : start [: status] : resource, then the tail.
static bool read_callout_parts(std::string_view rest, show_token *token) {
  const std::string_view backend = take_piece(&rest, ':');
  token->duration = take_piece(&rest, ':');
  token->backend_type = take_piece(&rest, ':');
  const std::string_view query = take_piece(&rest, ':');
  token->start = take_piece(&rest, ':');
  if (token->letter == 'E')
    token->status = take_piece(&rest, ':');
  const std::string_view resource = rest.substr(0, rest.find(':'));
  const bool has_tail = resource.size() < rest.size();
  rest.remove_prefix(has_tail ? resource.size() + 1 : resource.size());
  return show_number(backend, &token->backend_id) && show_number(query, &token->sql_id) &&
         show_number(resource, &token->resource_id) && read_callout_tail(rest, has_tail, token);
}

// "4:2:9:5:1:9:20:3:1"
static bool read_group(std::string_view rest, show_token *token) {
  const std::string_view backend = take_piece(&rest, ':');
  token->backend_type = take_piece(&rest, ':');
  const std::string_view query = take_piece(&rest, ':');
  token->values = rest;
  return show_number(backend, &token->backend_id) && show_is_number(token->backend_type) &&
         show_number(query, &token->sql_id);
}

static bool read_callout_token(show_token *token) {
  token->kind = TOKEN_CALLOUT;
  token->letter = token->text[0];
  std::string_view rest = token->text.substr(1);
  if (token->letter == 'C')
    return show_number(rest, &token->backend_id);
  if (token->letter == 'G')
    return read_group(rest, token);
  token->is_bare = rest.find(':') == rest.npos;
  token->number = take_piece(&rest, ':');
  if (token->is_bare)
    return token->letter == 't' || token->letter == 'x' || token->letter == 'e';
  return read_callout_parts(rest, token);
}

// --- the blob ---------------------------------------------------------------------------------------------------------

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

// Back to a method token's text: from its first byte to what is still unread.
static std::string_view text_from(const char *begin, const show_blob &blob) {
  const std::string_view text(begin, static_cast<size_t>(blob.rest.data() - begin));
  return text.ends_with('_') ? text.substr(0, text.size() - 1) : text;
}

bool show_next_token(show_blob *blob, show_token *token) {
  std::string_view &rest = blob->rest;
  rest.remove_prefix(std::min(rest.find_first_not_of('_'), rest.size()));
  if (rest.empty())
    return false;
  *token = {};
  const char *const begin = rest.data();
  bool good = false;
  if (callout_letters.find(*begin) != callout_letters.npos) {
    token->text = take_callout(&rest, blob->exit_form);
    good = read_callout_token(token);
  } else {
    good = read_method_token(take_piece(&rest, '_'), blob, token);
    token->text = text_from(begin, *blob);
  }
  if (!good)
    token->kind = TOKEN_BAD;
  return true;
}

// The first exit tells: in the exit form its event field has three parts, in the classic one two at most.
show_blob show_begin_blob(std::string_view text) {
  show_blob scout = {text, true};
  show_token token;
  while (show_next_token(&scout, &token))
    if (token.kind == TOKEN_EXIT)
      return {text, token.event_parts == 3};
  return {text};
}

// --- the callout text -----------------------------------------------------------------------------------------------

// Bytes of a row that was cut, the '|' before it included.
constexpr size_t cut_row_length = 2047;

// Takes a row's columns; the last one ends at a '|' or with the text. False when there are fewer.
static bool take_row(std::string_view *text, show_callout_row *row) {
  std::string_view rest = *text;
  for (size_t i = 0; i < 18; ++i) {
    const size_t comma = rest.find(',');
    if (comma == rest.npos)
      return false;
    row->text[i] = rest.substr(0, comma);
    rest.remove_prefix(comma + 1);
  }
  row->text[18] = rest.substr(0, rest.find('|'));
  rest.remove_prefix(row->text[18].size());
  *text = rest;
  return row->text[18].find(',') == rest.npos;
}

bool show_next_callout_row(std::string_view *text, bool *cut, show_callout_row *row) {
  *row = {};
  std::string_view rest = *text;
  const bool first = !rest.starts_with('|');
  rest.remove_prefix(first ? 0 : 1);
  const size_t most = cut_row_length - (first ? 0 : 1);
  const bool may_be_cut = rest.size() == most || (rest.size() > most && rest[most] == '|');
  std::string_view behind = rest;
  *cut = !take_row(&behind, row) || rest.size() - behind.size() > most;
  if (*cut) {
    if (!may_be_cut)
      return false;
    *row = {};
    show_split(rest.substr(0, most), ',', row->text, 19);
    behind = rest.substr(most);
  }
  const bool is_row = show_is_number((*row)[CALLOUT_FLOWPATH]) && (*row)[CALLOUT_KIND].size() == 1;
  if (is_row)
    *text = behind;
  return is_row;
}
