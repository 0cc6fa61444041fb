// Process and thread identity: process name, node id, argv0, thread names.
// Thread contract: the setters of process name and node id take no lock (start-up only);
// thread naming appends under circular_buffer_list_mutex.
#pragma once

// Fills buf (size bytes, zero-filled first) from /proc/<pid>/cmdline; returns buf, or null
// (buf untouched) when the file cannot be opened.
char* read_cmdline(char* buf, int size);
