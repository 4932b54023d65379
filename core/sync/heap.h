// Heap: what the agent asks of the C library's allocator so that a process
// resident all day gives back what a sync cycle used, instead of keeping the
// high-water mark of its largest cycle.
#pragma once

namespace corvane::Heap {

// Once, at the start of the process, before any thread: blocks of 64 KiB and
// more (upload bodies, result sets) are mapped on their own and unmapped when
// freed, and at most two arenas keep freed memory.
void configureForResident();

// Hands the pages of freed blocks back to the system. Called after each
// cycle; costs well under a millisecond.
void releaseFree();

}  // namespace corvane::Heap
