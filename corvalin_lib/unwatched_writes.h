// unwatched_writes: writes that ThreadSanitizer need not remember.
//
// It keeps a shadow, several times as large, of all memory that the program writes to. For a block of which no other
// thread knows yet there is nothing to find in it, and for the pool of packet buffers it is most of the time that an
// instrumented process needs to start.
//
// Threads    of the calling thread, between construction and destruction. Reads, and writes of others, stay watched.
#pragma once

#ifdef __SANITIZE_THREAD__
extern "C" {
// Of ThreadSanitizer's run time, which has no header of its own.
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
}
#endif

namespace corvalin {

class UnwatchedWrites {
public:
#ifdef __SANITIZE_THREAD__
    UnwatchedWrites() {
        AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    }
    ~UnwatchedWrites() {
        AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    }
#else
    // Not defaulted: an object that does nothing would be taken for one that is not used.
    UnwatchedWrites() {
    }
    ~UnwatchedWrites() {
    }
#endif
    UnwatchedWrites(const UnwatchedWrites&) = delete;
    UnwatchedWrites& operator=(const UnwatchedWrites&) = delete;
};

} // namespace corvalin
