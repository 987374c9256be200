// The writer: the one thread that appends queued telegrams to the day's file.
#pragma once

namespace varn {

// The three with main_lock held.

// Starts the writer. Without one, telegrams are dropped.
void start_th_job();

// Has the writer write what is queued, for up to a second and only as long as it gets on, and ends
// it. A writer that is stuck in a write is left to end by itself.
void stop_th_job();

// Whether the writer of an earlier start has ended; waits for it for a moment.
bool has_th_job_ended();

// After a fork, in the child: it has no writer.
void forget_th_job();

}  // namespace varn
