// The collector's control channel: partition switches, instances coming and going, and the timed discovery.
//   In      one TCP connection to tqc_ipaddr:tqc_port; lines of text
//   Out     the newest partition, pending switches of instances, new threads, signals to the upload child
//   Thread  "TQP_TQC_COMM"
//   Failure a lost collector ends the messages, not the process
#pragma once

// Timed discoveries since the last partition switch.
extern int scandir_count;

// Thread entry; returns when wl_status has left 1.
void *tqp_tqc_comm(void *arg);

// Announces this process on a fresh connection. 0, or -1, traced.
int send_control_req_to_tqc(int fd);

// Once connected: enters the partitions that have begun since the newest one was looked up at the start. Their messages,
// if they come after all, do nothing.
void tqp_enter_missed_partitions();

// Runs every whole line of a read; what follows the last newline is dropped. The text is cut in place.
void process_message_from_tqc(char *buf);
