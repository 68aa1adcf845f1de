#include "base/alloc.h"
#include "base/alloc_internal.h"

#include <algorithm>
#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define MFA_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MFA_ASAN 1
#endif
#endif
#ifdef MFA_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace {

int mallocTraceLevel = 0;

constexpr int kBigAlloc = 10485760;    // 10 MiB
constexpr int kBigAlloc64 = 536870912; // 512 MiB
constexpr int kCallocSize = 128 * 1024;

// The size diagnostics that every checked allocation prints before it asks
// the system heap; `gated` variants stay silent at trace level 0.
void reportSuspiciousSize(int size, const char *label, int threshold, bool gated) {
  if (gated && mallocTraceLevel <= 0)
    return;
  if (size > threshold)
    printf("MALLOC: big alloc coming %d from %s\n", size, label);
  else if (size == 0)
    printf("MALLOC: zero alloc from %s\n", label);
  else if (size < 0)
    printf("MALLOC: negative malloc %d from %s\n", size, label);
}

// The one allocation path. A negative size is passed on as it stands, so the
// system heap refuses it.
char *checkedAllocate(int size, const char *label, int threshold, bool gated,
                      int *progress = nullptr) {
  reportSuspiciousSize(size, label, threshold, gated);
  // A large piece is left to calloc, which skips the clearing where the
  // system heap knows the memory is fresh from the kernel, so that it costs
  // only the pages used; calloc bypasses the system heap's per-thread cache,
  // which serves the small pieces faster.
  size_t bytes = static_cast<size_t>(static_cast<long>(size));
  bool small = size >= 0 && size < kCallocSize;
  char *piece = static_cast<char *>(small ? malloc(bytes) : calloc(1, bytes));
  if (piece != nullptr && small)
    memset(piece, 0, bytes);
  if (piece == nullptr) {
    printf("MALLOC failed, got NULL for size %d at site %s\n", size, label);
    if (progress)
      *progress = 2182;
    return nullptr;
  }
  if (progress) {
    *progress = 2179;
    *progress = 2180;
    *progress = 2182;
  }
  return piece;
}

// Released memory is wiped first so that no secret outlives its owner. Only
// the first `used` bytes need it when the rest was never written: that part
// is still as zero-filled.
void wipeAndRelease(void *pointer, int used) {
  if (pointer == nullptr)
    return;
  if (used > 0)
    explicit_bzero(pointer, static_cast<size_t>(used));
  free(pointer);
}

// Ordinary blocks of released heaps, kept by each thread for its next heap.
// SLHFree wipes what a block handed out, which leaves it zero-filled as when
// it was obtained, so a heap that takes it skips clearing the whole block
// again: a small parse in a 64 KiB heap touches only what it uses. At most
// four blocks of up to 64 KiB, released when the thread ends.
//
// The record itself has no destructor, so that a heap released later still
// finds it (static objects are destroyed after the thread's own): once
// closed it keeps nothing.
class KeptBlocks {
public:
  static constexpr int kSlots = 4;
  static constexpr uint32_t kLargest = 64 * 1024;

  // A zero-filled block of exactly size bytes, or null.
  char *take(uint32_t size) {
    for (int i = count_ - 1; i >= 0; i--) {
      if (slots_[i].size == size) {
        char *data = slots_[i].data;
        slots_[i] = slots_[--count_];
        setUsable(data, size, true);
        return data;
      }
    }
    return nullptr;
  }

  // Wipes the first used bytes of a block and keeps it if it is small
  // enough, giving up the oldest kept block when full. Returns the wiped
  // block that is not kept, for release, or null.
  char *keep(char *data, uint32_t size, int used);

  // Releases what is kept; nothing is kept afterwards.
  void close() {
    closed_ = true;
    for (int i = 0; i < count_; i++) {
      setUsable(slots_[i].data, slots_[i].size, true);
      free(slots_[i].data);
    }
    count_ = 0;
  }

private:
  // Under AddressSanitizer a kept block is out of bounds, as if released, so
  // that a tree used after its heap was released is still caught.
  static void setUsable([[maybe_unused]] char *data, [[maybe_unused]] uint32_t size,
                        [[maybe_unused]] bool usable) {
#ifdef MFA_ASAN
    if (usable)
      ASAN_UNPOISON_MEMORY_REGION(data, size);
    else
      ASAN_POISON_MEMORY_REGION(data, size);
#endif
  }

  struct Slot {
    char *data;
    uint32_t size;
  };
  Slot slots_[kSlots];
  int count_;
  bool closed_;
  bool closing_; // the thread will close it when it ends
};

thread_local KeptBlocks keptBlocks;

// Closes the thread's kept blocks when the thread ends.
struct KeptBlocksCloser {
  ~KeptBlocksCloser() { keptBlocks.close(); }
};
thread_local KeptBlocksCloser keptBlocksCloser;

char *KeptBlocks::keep(char *data, uint32_t size, int used) {
  if (used > 0)
    explicit_bzero(data, static_cast<size_t>(used));
  if (size > kLargest || closed_)
    return data;
  if (!closing_) {
    [[maybe_unused]] KeptBlocksCloser *closer = &keptBlocksCloser; // registers its destructor
    closing_ = true;
  }
  char *dropped = nullptr;
  if (count_ == kSlots) {
    dropped = slots_[0].data;
    setUsable(dropped, slots_[0].size, true);
    for (int i = 1; i < kSlots; i++)
      slots_[i - 1] = slots_[i];
    count_--;
  }
  setUsable(data, size, false);
  slots_[count_++] = {data, size};
  return dropped;
}

char *copyWithTerminator(char *target, const char *bytes, int length) {
  if (target == nullptr)
    return nullptr;
  if (length > 0)
    memcpy(target, bytes, static_cast<size_t>(length));
  target[length] = '\0';
  return target;
}

} // namespace

// Beyond the common case: a new block, an oversize block, a request of 0
// bytes or less, or a refusal. Kept out of SLHAlloc, whose common case then
// needs no stack frame.
extern "C" [[gnu::noinline]] char *slhAllocateSlowly(ShortLivedHeap *slh, int32_t rounded) {
  int64_t capacity = static_cast<int64_t>(slh->remaining) +
                     static_cast<int64_t>(slh->blockSize) *
                         (static_cast<int64_t>(slh->maxBlocks) - slh->blockCount);
  if (rounded > capacity) {
    printf("cannot allocate above block size %d > %d mb %d bc %d\n", rounded,
           static_cast<int>(capacity), slh->maxBlocks, slh->blockCount);
    return nullptr;
  }
  if (rounded < 0)
    return nullptr;
  if (rounded == 0)
    return slh->nextFree;

  if (static_cast<uint32_t>(rounded) > slh->blockSize) {
    slh->blockCount++;
    char *block = safeMalloc31(rounded, "SLH Oversize Extend");
    if (block == nullptr) {
      reportSLHFailure(slh, rounded);
      return nullptr;
    }
    if (slh->segmentList != nullptr) {
      // Behind the current block, which keeps serving small pieces.
      ListElt *element = cons(block, slh->segmentList->next, static_cast<uint32_t>(rounded));
      if (element == nullptr) {
        safeFree31(block, rounded);
        return nullptr;
      }
      slh->segmentList->next = element;
    } else {
      ListElt *element = cons(block, nullptr, static_cast<uint32_t>(rounded));
      if (element == nullptr) {
        safeFree31(block, rounded);
        return nullptr;
      }
      slh->segmentList = element;
      slh->nextFree = block;
      slh->remaining = 0;
    }
    return block;
  }

  if (slh->nextFree == nullptr || static_cast<uint32_t>(rounded) > slh->remaining) {
    slh->blockCount++;
    int blockSize = static_cast<int>(slh->blockSize);
    char *block = keptBlocks.take(slh->blockSize);
    if (block == nullptr)
      block = safeMalloc31(blockSize, "SLH Extend");
    if (block == nullptr) {
      reportSLHFailure(slh, rounded);
      return nullptr;
    }
    ListElt *element = cons(block, slh->segmentList, slh->blockSize);
    if (element == nullptr) {
      safeFree31(block, blockSize);
      return nullptr;
    }
    slh->segmentList = element;
    slh->nextFree = block;
    slh->remaining = slh->blockSize;
  }

  char *piece = slh->nextFree;
  slh->nextFree += rounded;
  slh->remaining -= static_cast<uint32_t>(rounded);
  return piece;
}


extern "C" {

int mallocSetTraceLevel(int level) {
  return std::exchange(mallocTraceLevel, level);
}

char *safeMalloc(int size, const char *label) {
  return checkedAllocate(size, label, kBigAlloc, true);
}

char *safeMalloc2(int size, const char *label, int *progress) {
  return checkedAllocate(size, label, kBigAlloc, true, progress);
}

char *safeMalloc31(int size, const char *label) {
  return checkedAllocate(size, label, kBigAlloc, true);
}

char *safeMalloc31Key8(int size, const char *label) {
  return checkedAllocate(size, label, kBigAlloc, false);
}

char *safeMalloc64Internal(int size, const char *label, uint64_t) {
  return checkedAllocate(size, label, kBigAlloc64, false);
}

char *safeMalloc64(int size, const char *label) {
  return safeMalloc64Internal(size, label, 0);
}

char *safeMalloc64ByToken(int size, const char *label, uint64_t token) {
  return safeMalloc64Internal(size, label, token);
}

// Storage below the 2 GB line does not exist on this platform; it is plain
// system heap.
char *malloc31(int size) {
  return static_cast<char *>(malloc(static_cast<size_t>(size)));
}

void free31(void *pointer, int size) {
  wipeAndRelease(pointer, size);
}

void safeFree(char *pointer, int size) {
  wipeAndRelease(pointer, size);
}
void safeFreeUsed(char *pointer, int size, int used) {
  wipeAndRelease(pointer, std::min(used, size));
}
void safeFree31(char *pointer, int size) {
  wipeAndRelease(pointer, size);
}
void safeFree31Key8(char *pointer, int size) {
  wipeAndRelease(pointer, size);
}

// 64-bit storage is deliberately never returned; callers still pair the calls.
void safeFree64Internal(char *, int, uint64_t) {}
void safeFree64(char *pointer, int size) {
  safeFree64Internal(pointer, size, 0);
}
void safeFree64ByToken(char *pointer, int size, uint64_t token) {
  safeFree64Internal(pointer, size, token);
}

char *safeRealloc(char *old, int newSize, int oldSize, const char *label) {
  char *piece = safeMalloc(newSize, label);
  if (piece == nullptr)
    return nullptr;
  if (old != nullptr && oldSize != 0) {
    memcpy(piece, old, static_cast<size_t>(oldSize));
    safeFree(old, oldSize);
  }
  return piece;
}

char *noisyMalloc(int size) {
  char *piece = safeMalloc(size, "NoisyMalloc");
  if (piece == nullptr) {
    printf("malloc failure for allocation of %d bytes\n", size);
    fflush(stdout);
  }
  return piece;
}

ListElt *cons(char *data, ListElt *next, uint32_t size) {
  ListElt *element = safeMallocRecord<ListElt>("ListElt");
  if (element == nullptr)
    return nullptr;
  memcpy(element->eyecatcher, "LSTE", 4);
  element->size = size;
  element->data = data;
  element->next = next;
  return element;
}

ShortLivedHeap *makeShortLivedHeapInternal(int blockSize, int maxBlocks, int) {
  ShortLivedHeap *slh = safeMallocRecord<ShortLivedHeap>("ShortLivedHeap");
  if (slh == nullptr)
    return nullptr;
  memcpy(slh->eyecatcher, "SLH SLH ", 8);
  slh->maxBlocks = static_cast<uint32_t>(maxBlocks);
  slh->blockSize = static_cast<uint32_t>(blockSize);
  return slh;
}

ShortLivedHeap *makeShortLivedHeap(int blockSize, int maxBlocks) {
  return makeShortLivedHeapInternal(blockSize, maxBlocks, 0);
}

ShortLivedHeap *makeShortLivedHeap32(int blockSize, int maxBlocks) {
  return makeShortLivedHeapInternal(blockSize, maxBlocks, 0);
}

ShortLivedHeap *makeShortLivedHeap64(int blockSize, int maxBlocks) {
  return makeShortLivedHeapInternal(blockSize, maxBlocks, 1);
}

void reportSLHFailure(ShortLivedHeap *slh, int size) {
  printf("could not get any memory for SLH extension, extension size was 0x%x\n", size);
  int index = 0;
  for (ListElt *element = slh ? slh->segmentList : nullptr; element;
       element = element->next, index++) {
    printf("  segment %d at 0x%x, size = 0x%x\n", index,
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(element->data)), element->size);
  }
}

char *SLHAlloc(ShortLivedHeap *slh, int size) {
  return SLHAllocInline(slh, size);
}

void SLHFree(ShortLivedHeap *slh) {
  if (slh == nullptr)
    return;
  ListElt *element = slh->segmentList;
  while (element != nullptr) {
    ListElt *next = element->next;
    bool ordinary = element->size == slh->blockSize;
    // Only the current block can have a part never handed out: what an
    // earlier ordinary block left is smaller than the piece that made the
    // heap move on, and an oversize block is handed out whole. Past the next
    // free byte the current block is still zero-filled.
    int used = ordinary && element == slh->segmentList
                   ? static_cast<int>(slh->nextFree - element->data)
                   : static_cast<int>(element->size);
    if (ordinary)
      free(keptBlocks.keep(element->data, element->size, used));
    else
      wipeAndRelease(element->data, used);
    safeFreeRecord(element);
    element = next;
  }
  safeFreeRecord(slh);
}

char *duplicateString(const char *text) {
  if (text == nullptr)
    return nullptr;
  int length = static_cast<int>(strlen(text));
  return copyWithTerminator(safeMalloc(length + 1, "duplicateString"), text, length);
}

char *duplicateStringWithSize(const char *bytes, int length) {
  if (bytes == nullptr || length < 0)
    return nullptr;
  return copyWithTerminator(safeMalloc(length + 1, "duplicateString"), bytes, length);
}

void freeString(char *text) {
  if (text != nullptr)
    safeFree(text, static_cast<int>(strlen(text)) + 1);
}

char *slhDuplicateString(ShortLivedHeap *slh, const char *text) {
  // An empty string deliberately yields null here.
  if (slh == nullptr || text == nullptr || text[0] == '\0')
    return nullptr;
  int length = static_cast<int>(strlen(text));
  return copyWithTerminator(SLHAlloc(slh, length + 1), text, length);
}

char *slhDuplicateStringWithSize(ShortLivedHeap *slh, const char *bytes, int length) {
  if (slh == nullptr || bytes == nullptr || length < 0)
    return nullptr;
  return copyWithTerminator(SLHAlloc(slh, length + 1), bytes, length);
}

char *stringConcatenate(ShortLivedHeap *slh, const char *a, const char *b) {
  return stringConcatenateMultiple(slh, 2, a, b);
}

char *stringConcatenateMultiple(ShortLivedHeap *slh, int count, const char *first,
                                const char *second, ...) {
  if (slh == nullptr || count < 2)
    return nullptr;
  va_list rest;
  va_start(rest, second);
  auto forEachPart = [&](auto &&visit) {
    visit(first);
    visit(second);
    va_list remaining;
    va_copy(remaining, rest);
    for (int i = 2; i < count; i++)
      visit(va_arg(remaining, const char *));
    va_end(remaining);
  };
  size_t total = 0;
  forEachPart([&](const char *part) { total += part ? strlen(part) : 0; });
  char *result = SLHAlloc(slh, static_cast<int>(total + 1));
  if (result == nullptr) {
    va_end(rest);
    return nullptr;
  }
  char *cursor = result;
  forEachPart([&](const char *part) {
    if (part == nullptr)
      return;
    size_t length = strlen(part);
    memcpy(cursor, part, length);
    cursor += length;
  });
  va_end(rest);
  *cursor = '\0';
  return result;
}

StringList *makeStringList(ShortLivedHeap *slh) {
  StringList *list = reinterpret_cast<StringList *>(SLHAlloc(slh, sizeof(StringList)));
  if (list == nullptr)
    return nullptr;
  memset(list, 0, sizeof(StringList));
  list->slh = slh;
  return list;
}

void addToStringList(StringList *list, char *text) {
  if (list == nullptr)
    return;
  StringListElt *element =
      reinterpret_cast<StringListElt *>(SLHAlloc(list->slh, sizeof(StringListElt)));
  if (element == nullptr)
    return;
  element->string = text;
  element->next = nullptr;
  if (list->tail)
    list->tail->next = element;
  else
    list->head = element;
  list->tail = element;
  list->count++;
  list->totalLength += text ? static_cast<int>(strlen(text)) : 0;
}

int stringListContains(StringList *list, const char *text) {
  if (list == nullptr || text == nullptr)
    return 0;
  for (StringListElt *element = list->head; element; element = element->next) {
    if (element->string && strcmp(element->string, text) == 0)
      return 1;
  }
  return 0;
}

int addToStringListUnique(StringList *list, char *text) {
  if (stringListContains(list, text))
    return 0;
  addToStringList(list, text);
  return 1;
}

int stringListLength(StringList *list) {
  int length = 0;
  for (StringListElt *element = list ? list->head : nullptr; element; element = element->next)
    length++;
  return length;
}

StringListElt *firstStringListElt(StringList *list) {
  return list ? list->head : nullptr;
}

char *stringListLast(StringList *list) {
  return list && list->tail ? list->tail->string : nullptr;
}

char *stringListPrint(StringList *list, int skip, int maximum, const char *separator, char quote) {
  if (list == nullptr)
    return nullptr;
  std::string_view sep = separator ? separator : "";
  int perElement = static_cast<int>(sep.size()) + (quote ? 2 : 0);
  char *result = SLHAlloc(list->slh, list->count * perElement + list->totalLength + 1);
  if (result == nullptr)
    return nullptr;
  char *cursor = result;
  StringListElt *element = list->head;
  for (int i = 0; i < skip && element; i++)
    element = element->next;
  for (int emitted = 0; element && emitted < maximum; element = element->next) {
    std::string_view text = element->string ? element->string : "";
    if (quote)
      *cursor++ = quote;
    memcpy(cursor, text.data(), text.size());
    cursor += text.size();
    if (quote)
      *cursor++ = quote;
    emitted++;
    if (element->next && emitted < maximum) {
      memcpy(cursor, sep.data(), sep.size());
      cursor += sep.size();
    }
  }
  assert(cursor < result + list->count * perElement + list->totalLength + 1);
  *cursor = '\0';
  return result;
}

} // extern "C"
