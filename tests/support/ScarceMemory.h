// A library that finds only so much memory. What of it a test limits is the calling thread's.
#pragma once

#include <malloc.h>

#include <cstdlib>
#include <cstring>

#include "tests/support/ImportPatch.h"

class ScarceMemory {
  public:
    explicit ScarceMemory(HMODULE library)
        : malloc_(library, "malloc", Malloc),
          calloc_(library, "calloc", Calloc),
          free_(library, "free", Free) {}

    // For the length of a scope the library may take so many bytes more than it gives back.
    class Limit {
      public:
        explicit Limit(size_t bytes) : limit_(bytes) {
            left = bytes;
            limited = true;
        }
        ~Limit() { limited = false; }
        Limit(const Limit&) = delete;
        Limit& operator=(const Limit&) = delete;

        // What the library has not given back.
        size_t Held() const { return limit_ - left; }

      private:
        const size_t limit_;
    };
    static constexpr size_t kOfThread = 1000;  // may be held for each that lives

  private:
    static void* Malloc(size_t size) {
        if (limited && left < size) {
            return nullptr;
        }
        void* block = malloc(size);
        left -= size;
        return block;
    }
    static void* Calloc(size_t count, size_t size) {
        void* block = Malloc(count * size);
        return block != nullptr ? memset(block, 0, count * size) : nullptr;
    }
    static void Free(void* block) {
        left += block != nullptr ? _msize(block) : 0;
        free(block);
    }

    static inline thread_local bool limited = false;
    static inline thread_local size_t left = 0;
    ImportPatch malloc_, calloc_, free_;
};
