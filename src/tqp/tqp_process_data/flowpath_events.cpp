// Hands flowpath records to the engine, and lets each of them drive the sweep for flowpaths that have gone silent.
//   In      events 2, 3, 4, 43, 44, 80, 82, 83, 84
//   Out     the flowpath engine's work
//   Thread  the instance's
//   Failure told by the engine; the next record is read

#include "event_table.h"
#include "record_errors.h"
#include "tqp_run_time_v2.h"

static void sweep(tqp_instance_t *inst) {
  if (secs_to_clean_dead_flowpaths != 0 && secs_to_mark_an_fp_dead != 0)
    clear_stuck_flowpaths(inst);
}

void tq_run_header(tq_event &ev) {
  segment_place unused;
  process_record_bci_seqblob_header(ev.inst, &ev.f, ev.id, &unused);
  sweep(ev.inst);
}

void tq_run_blob(tq_event &ev) {
  process_record_bci_seqblob(ev.inst, &ev.f, ev.id);
  sweep(ev.inst);
}

void tq_run_exit_blob(tq_event &ev) {
  ev.f.next();
  if (ev.f.ended)
    tqp_incomplete_record(ev.inst);
  else
    process_record_bci_seqblob(ev.inst, &ev.f, ev.id);
  sweep(ev.inst);
}

// A response comes whole on one line: header, blob, end.
void tq_run_async_response(tq_event &ev) {
  segment_place place;
  process_record_bci_seqblob_header(ev.inst, &ev.f, ev.id, &place);
  if (place.segment) {
    place.segment->status_code = -4;
    blob_reader r = {ev.inst, place.segment, place.slot, ev.f.pos, ev.f.pos, ev.f.end, ev.id};
    process_seq_blob_from_bci(&r);
    bcig_dump_flowpath(ev.inst, place.slot, place.segment);
  }
  sweep(ev.inst);
}
