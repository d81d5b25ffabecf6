// What the loader does beside loading: status, verification, removal.
//   Out     standard output; the exit status
//   Failure one line on standard error, status 1
#pragma once

#include "upload_options.h"

int upload_show_status(const upload_options &options);
int upload_ask(const upload_options &options);
int upload_verify(const upload_options &options);
int upload_remove(const upload_options &options, tqdb::load_driver *driver);
