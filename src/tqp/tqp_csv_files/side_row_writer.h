// The one road of side records into their files: held back in a buffer until that is four fifths full, written at once
// when they are late.
//   In      a row that its writer has put behind the others in its buffer, and the event's own time
//   Out     the current partition's file, in blocks of rows; the previous partition's, row by row
//   Thread  the instance's
//   Failure a file that cannot be opened is told, and what should have gone there is lost
#pragma once

#include "flowpath_files.h"
#include "row_batch.h"

// A row behind the ones held back, and what decides on its way.
struct side_row {
  size_t from;  // where it begins in the buffer; it reaches to the buffer's end
  int64_t time; // s, test's epoch
  int64_t fpi;
  const char *fpi_text = nullptr; // as the record gave it
};

// What a writer has of its own.
struct side_row_writer {
  int slot; // of csv_file_pointers
  wllb_text tqp_instance_t::*buffer;
  const char *label;      // of the buffer's memory
  const int *buffer_size; // bytes that may be held back; null: none
  bool row_first;         // a row that does not fit goes out before the rows held back, else behind them
  bool saves_state;       // rows written out make the instance's position worth saving
  void (*tell_full)();
  void (*tell_closed)(const side_row &row);           // late, and the previous file is closed
  void (*tell_older)(const side_row &row);            // older than the previous partition
  void (*tell_unwritten)(const tqp_instance_t *inst); // the current file cannot be opened
};

// Begins a row of at most `most` bytes behind the others; ended with done() on the same buffer.
inline wllb_putter tqp_begin_side_row(tqp_instance_t *inst, const side_row_writer &writer, size_t most) {
  return {inst->*writer.buffer, most, writer.label};
}

// Sends a finished row on its way. A row without text does nothing.
void tqp_place_side_row(tqp_instance_t *inst, const side_row_writer &writer, const side_row &row);

// What most writers say when the current file cannot be opened.
void tqp_tell_unwritten_side_rows(const tqp_instance_t *inst);

// Writes out the rows held back.
void tqp_flush_side_rows(tqp_instance_t *inst, const side_row_writer &writer);
