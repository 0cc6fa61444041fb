// Live stream of records into a reader's named pipe "quarry.pipe".
// Thread contract: the pipe step runs on the writer's thread under the buffer's mutex;
// pipe_watch_callback runs on the host's event-loop thread and takes the same mutex.
#pragma once

#include <stdint.h>

#include "buffer.h"

// Step 13 of the record writer: copies the record at position p, n words long, to the pipe.
void pipe_record(circular_buffer* cb, uint32_t p, uint32_t n);
void close_pipe(circular_buffer* cb);
extern "C" void pipe_watch_callback(int fd, uint16_t events, void* arg);
