// When the parent started, for a run that was not told.
#pragma once

// Sets g_wl_time_stamp_ms from the date in "%s/logs/TR%d/summary.top". A date that cannot be read is told on standard
// output and leaves the value. Main, at start.
void get_wl_time_stamp_in_ms();
