// What the rooms of the classic form share: a method token as read, the texts it is rewritten to, the row of a captured
// argument. Private to this group.
//   Thread  the instance's
#pragma once

#include "blob_fields.h"
#include "tqp_run_time_v2.h"

// Values of event_id in a method token.
constexpr int32_t BLOB_ENTRY = 0;
constexpr int32_t BLOB_EXIT = 1; // so are 3 and 4
constexpr int32_t BLOB_UNINSTRUMENTED = 2;

// One method token, as far as it has been read.
struct classic_method {
  char *start = nullptr; // of the token, for messages
  int32_t method_id = 0; // local
  int32_t norm_method_id = 0;
  int32_t event_id = 0;
  int32_t seq_num = 0; // the agent's, 0: none
  int32_t dynamic_logging_flag = 0;
  int64_t thread_id = 0;
  bool async_call = false;
  uint8_t task_id_len = 0;
  char task_id[64]; // ":" and the agent's text; task_id_len bytes of it
  const char *sql_id_str = "", *sql_query_param_str = "";
  method_times times = {}; // of an exit
};

// --- texts of the tokens (blob_text.cpp): each is put behind the blob, without a '_' of its own ----------------------

void tqp_put_entry_token(segment_fp_t *segment, const classic_method &m, int32_t rel_time);

// end_time: of the method, ms since begin_ts.
void tqp_put_exit_token(segment_fp_t *segment, const classic_method &m, int64_t end_time);

void tqp_put_uninstrumented_token(segment_fp_t *segment, int32_t norm_method_id);

// The exit of a method that was closed because a method below it has ended.
void tqp_put_forced_exit_token(segment_fp_t *segment, const method_call_stack_t &row, int64_t end_time);

// Puts "_" behind the blob, whatever stands there.
void tqp_put_token_separator(segment_fp_t *segment);

// --- messages (blob_text.cpp) -------------------------------------------------------------------------------------

// The place in a piece that a message quotes: "... at character number %d in sequence blob. (%*.*s ...)".
struct blob_quote {
  int character_number; // from 1
  int width, len;       // of the quoted text: as printed, as taken
  const char *text;
};

blob_quote tqp_blob_quote(const blob_reader *r, const char *token);

// --- limit (blob_text.cpp) --------------------------------------------------------------------------------------

// True when the segment has had as many records as are allowed, or as much text: told, and the cursor stands behind the
// line. The parser then returns 1.
bool tqp_blob_truncated(blob_reader *r);

// --- captured arguments (call_stack.cpp) --------------------------------------------------------------------------

// A row for a method that has a page id, when they are wanted. `own`: what the method keeps for itself.
void tqp_dump_argument(tqp_instance_t *inst, const segment_fp_t *segment, const method_call_stack_t &row,
                       const method_times &own);
