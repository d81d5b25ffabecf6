// How a file under the test run is made, owned, appended to and mended; whoever writes one does it by these.
//   In      paths, rows
//   Out     files that belong to ownerid and grpid, streams
//   Thread  any; a stream belongs to its caller
//   Failure told in the trace; a null stream, or false
#pragma once

#include "tqp_main.h"

// Opens a data file, for writing never through a link. "w" and "w+" truncate, "wx" makes a new file for a moment, "r" only reads, any
// other mode makes the file when it is missing; all but "r" give it to ownerid and grpid. Null on failure, which is traced
// unless the path holds ".recovery"; an instance's thread waits instead (output_wait.h), and gets null in a stop alone.
FILE *my_fopen(const char *path, const char *mode);

// The same for a file that has to be there already, and a plain one; null for anything else in its place.
wllb_file tqp_open_plain_file(const std::string &path, const char *mode);

// Replaces a file's content; the file gets its owner. With mode "wx" it is made anew. True when all of it is written.
bool tqp_write_data_file(const char *path, std::string_view text, const char *mode = "w");

// Opens an empty file beside `path`, owned as data files are. Null when it cannot be made.
FILE *tqp_begin_replacing(const std::string &path);

// Closes it and, when it is `whole` and the system took all of it, puts it in the place of `path`; else it is removed
// and `path` keeps what it has. A kill at any moment leaves the one or the other. True when `path` is new.
bool tqp_end_replacing(FILE *file, const std::string &path, bool whole);

// Both at once. False leaves the old content and the reason in errno.
bool tqp_replace_data_file(const std::string &path, std::string_view text);

// Gives a directory to ownerid and grpid; a failure is ignored.
void tqp_own_directory(const char *path);

// Makes a data file, by resume_flag: what it has stays, or goes. With `keep_open` it is returned, for appending; else the
// result is null.
FILE *tqp_make_data_file(const char *path, bool keep_open);

// Like tqp_make_data_file, but always empties the file (mode "w") or never does (mode "a"), whatever resume_flag says.
FILE *tqp_make_data_file_as(const char *path, const char *mode, bool keep_open);

// Closes a stream and clears the slot that held it; a null stream does nothing.
void tqp_close_stream(FILE **stream);

// Appends rows to a file, past the stream's own buffer, which nobody uses; all or none: what the system takes of them
// before it fails is taken away again. False on failure, which is traced.
bool tqp_append_rows(FILE *stream, std::string_view rows);

// Takes away what a kill has left behind the last whole row of a file, so that the next one is not glued to it: rows of
// that many bytes, or with 0 lines of text. A file that is missing or cannot be read stays as it is.
void tqp_cut_torn_row(const char *path, int64_t row_size);

// Bytes of one row of a binary timing file.
constexpr int tqp_timing_record_size = 144;
