// The road of side records; see the header.

#include "side_row_writer.h"

#include "state_save.h"
#include "tqp_csv_files.h"

// Beside its own length, room for this many bytes must be left for a row to be held back.
static constexpr size_t margin = 256;

void tqp_tell_unwritten_side_rows(const tqp_instance_t * /*inst*/) {
  wllb_trace(1, "Error", "Could not write to http_capture_header csv file");
}

static void write_to_current(tqp_instance_t *inst, const side_row_writer &writer, std::string_view rows) {
  if (FILE *const stream = tqp_current_data_file(inst, writer.slot))
    tqp_append_rows(stream, rows);
  else
    writer.tell_unwritten(inst);
}

static void write_late(tqp_instance_t *inst, const side_row_writer &writer, const side_row &row, data_age age,
                       std::string_view text) {
  FILE *const prev = tqp_previous_data_file(inst, writer.slot);
  if (!prev)
    return writer.tell_closed(row);
  if (age == AGE_OLDER)
    return writer.tell_older(row);
  tqp_append_rows(prev, text);
  write_prev_tqpdone(inst, tqp_data_file_name(writer.slot));
}

// One very long row must not make a buffer large for good.
static void release_excess(wllb_text &buffer, const side_row_writer &writer) {
  if (writer.buffer_size && buffer.len == 0 && buffer.size > 2 * static_cast<size_t>(*writer.buffer_size))
    wllb_text_free(buffer, writer.label);
}

void tqp_flush_side_rows(tqp_instance_t *inst, const side_row_writer &writer) {
  wllb_text &buffer = inst->*writer.buffer;
  if (buffer.len == 0)
    return;
  write_to_current(inst, writer, wllb_text_view(buffer));
  wllb_text_clear(buffer); // before the save, which comes back here
  release_excess(buffer, writer);
  if (writer.saves_state)
    save_tqp_app_instance_thread_state(inst);
}

static bool may_be_held_back(const side_row_writer &writer, size_t row_len, size_t held_back) {
  return writer.buffer_size && row_len + held_back + margin < static_cast<size_t>(*writer.buffer_size);
}

static void place_current(tqp_instance_t *inst, const side_row_writer &writer, const side_row &row,
                          std::string_view text) {
  wllb_text &buffer = inst->*writer.buffer;
  if (may_be_held_back(writer, text.size(), row.from)) {
    if (buffer.len <= static_cast<size_t>(*writer.buffer_size) * 8 / 10)
      return;
    writer.tell_full();
  } else if (writer.row_first) {
    write_to_current(inst, writer, text);
    wllb_text_cut(buffer, row.from);
    release_excess(buffer, writer);
  }
  tqp_flush_side_rows(inst, writer);
}

void tqp_place_side_row(tqp_instance_t *inst, const side_row_writer &writer, const side_row &row) {
  wllb_text &buffer = inst->*writer.buffer;
  const std::string_view text = wllb_text_view(buffer).substr(row.from);
  if (text.empty())
    return;
  const data_age age = tqp_age_of(inst, row.time);
  if (age == AGE_CURRENT)
    return place_current(inst, writer, row, text);
  write_late(inst, writer, row, age, text);
  wllb_text_cut(buffer, row.from);
  release_excess(buffer, writer);
}
