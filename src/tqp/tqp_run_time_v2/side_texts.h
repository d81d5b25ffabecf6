// The side texts of call stack rows, exit form: callouts and methods without instrumentation wait there for the blob. All
// texts of a segment share one memory, in which each text is a chain of pieces: rows are many, and most have no text.
// Private to this group.
//   In      pieces for any row, in any order
//   Out     the text of a row at the end of the blob; the memory is empty again when no row has a text left
//   Thread  the instance's
//   Failure pieces behind the first 4 GiB of a segment are lost
#pragma once

#include "tqp_main.h"

#include <cstddef>

// Stands before the bytes of a piece, wherever that is. A piece's place is its offset and 1; 0: none.
struct side_piece {
  uint32_t next; // place
  uint32_t len;  // bytes
};

// Begins a piece of at most `most` bytes; tqp_end_side_text ends it.
inline wllb_putter tqp_begin_side_text(segment_fp_t *segment, size_t most, const char *label) {
  wllb_putter out(segment->side_texts, sizeof(side_piece) + most, label);
  out.at += sizeof(side_piece);
  return out;
}

// Hangs the piece on a row's text.
inline void tqp_end_side_text(segment_fp_t *segment, side_text_t *side, const wllb_putter &out) {
  wllb_text &texts = segment->side_texts;
  const size_t begin = texts.len;
  out.done(texts);
  if (texts.len > UINT32_MAX) [[unlikely]]
    return wllb_text_cut(texts, begin);
  const auto place = static_cast<uint32_t>(begin + 1);
  const side_piece piece = {0, static_cast<uint32_t>(texts.len - begin - sizeof piece)};
  memcpy(texts.data + begin, &piece, sizeof piece);
  if (side->first == 0)
    side->first = place;
  else
    memcpy(texts.data + side->last - 1 + offsetof(side_piece, next), &place, sizeof place);
  side->last = place;
  ++segment->side_pieces;
}

// Moves a row's text to the end of the blob.
inline void tqp_move_side_text_to_blob(segment_fp_t *segment, side_text_t *side, const char *label) {
  for (uint32_t place = side->first; place != 0;) {
    const char *const at = segment->side_texts.data + place - 1;
    side_piece piece;
    memcpy(&piece, at, sizeof piece);
    wllb_text_put(segment->seq_blob, {at + sizeof piece, piece.len}, label);
    place = piece.next;
    --segment->side_pieces;
  }
  *side = {};
  if (segment->side_pieces == 0)
    wllb_text_clear(segment->side_texts);
}
