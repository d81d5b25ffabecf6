// Cuts a rewritten blob and a callout text into their pieces.
//   In      the texts as they stand in the sequence blob file
//   Out     tokens and rows, views into them
//   Thread  one
//   Failure a token of kind TOKEN_BAD; the next one is looked for behind it
#pragma once

#include "show_files.h"

enum show_token_kind { TOKEN_ENTRY, TOKEN_EXIT, TOKEN_UNINSTRUMENTED, TOKEN_CALLOUT, TOKEN_BAD };

// One token. Times are milliseconds since the segment's begin; ids are norm ids.
struct show_token {
  show_token_kind kind;
  std::string_view text; // all of it

  // --- methods ---
  int64_t method_id;
  bool has_thread, is_async;
  int64_t thread_id;
  std::string_view task_id;
  bool has_seq_num;
  int64_t seq_num;
  int64_t time;     // entry: when; exit: when it ended
  int64_t times[5]; // exit: CPU, wait, sync, I/O, suspension
  bool is_forced;   // exit: written because a method below it ended
  int event_parts;  // of the event field: 3 on the exits of the exit form

  // --- callouts ---
  char letter;             // "TtxcgeEaA", 'G', 'C'
  std::string_view number; // behind the letter: "12", or "1.2.12" on a segment's first one
  bool is_bare;            // nothing but letter and number
  int64_t backend_id, sql_id, resource_id;
  std::string_view duration, backend_type, start; // as the agent gave them; G: the type alone
  std::string_view status, parameter;
  std::string_view net_request, net_response;
  std::string_view values;          // G: what stands behind the query's id
  int64_t parent_seq_num, flowpath; // a, A
};

struct show_blob {
  std::string_view rest;
  bool exit_form = false;
};

// Finds out the form, and stands before the first token.
show_blob show_begin_blob(std::string_view text);

// False at the end. Empty pieces, which damaged raw data leaves behind, are passed over.
bool show_next_token(show_blob *blob, show_token *token);

// Whether a callout of this backend type names a query.
bool show_is_database_type(std::string_view backend_type);

// One row of a segment's callout text.
using show_callout_row = show_columns<19>;

enum show_callout_column {
  CALLOUT_FLOWPATH = 1,
  CALLOUT_KIND = 2,
  CALLOUT_BACKEND = 5,
  CALLOUT_TYPE = 6,
  CALLOUT_SUB_TYPE = 7,
  CALLOUT_RESOURCE = 12
};

// Takes the next row off a callout text. False at its end, and when what follows is no row: then the text is not empty.
// A row that was cut at 2047 bytes comes with `cut` set and its last columns empty. Texts in a row may hold '|'.
bool show_next_callout_row(std::string_view *text, bool *cut, show_callout_row *row);
