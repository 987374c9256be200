// System V message queues: permissions, waiting and interrupted calls settled once. Nothing here
// creates a queue; queues are the collector's.
#pragma once

#include <sys/ipc.h>

#include <cstddef>

namespace varn {

// The id of the queue that exists under the key, or -1.
int create_msgq(key_t key);

// Sends without waiting: 0, or -1 at once when the queue is full or gone (errno says which).
int send_msgq(int msqid, const void* message, std::size_t text_size);

// Receives a message of the type (0: any): its text's size, or -1. An interrupted wait goes on.
long read_msgq(int msqid, long type, void* message, std::size_t text_size, bool no_wait);

int remove_msgq(int msqid);  // 0 or -1

// Replaces the queue's permission bits with an octal number, "660" say: 0 or -1.
int change_mode_msgq(int msqid, const char* mode);

// Messages on the queue, or a negative value.
long get_msgq_num(int msqid);

}  // namespace varn
