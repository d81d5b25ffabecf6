// Runs one record: called by the line cutter, and from below by the readers of recovery files and agents' replies.
#pragma once

struct tqp_instance_t;

// *p_cursor stands behind the comma of the event id, end_of_record on the record's newline, which becomes a NUL. A bad
// record is told by counters and trace lines. from_recovery: 0 from the raw file, 1 from anywhere else.
void tq_process_data_line(tqp_instance_t *inst, int event_id, char **p_cursor, char *end_of_record, int from_recovery);
