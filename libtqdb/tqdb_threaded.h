// A driver in a thread of its own: rows are mapped while the ones before them go into the database.
//   In      the calls of a driver
//   Out     the same calls to the driver inside, in their order, from one thread
//   Thread  the loader's for the calls; the driver inside is only touched by the worker while there is work
//   Failure what fails is returned by the next call; open() then gives what the database has, as after any other failure
// add(), announce() and commit() return before they have been carried out, unless too much waits; all others wait for them.
#pragma once

#include "tqdb_driver.h"

namespace tqdb {

std::unique_ptr<load_driver> make_threaded(std::unique_ptr<load_driver> inside);

} // namespace tqdb
