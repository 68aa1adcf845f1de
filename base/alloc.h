// Checked allocation and the short-lived heap.
//
// Checked allocation wraps the system heap: every call names its site with a
// short label that appears only in diagnostics, memory always comes back
// zero-filled, and failures print a line on standard output and return null.
// Releases take the size that was allocated; released memory is overwritten
// with zeros before it goes back to the system heap.
//
// A short-lived heap (SLH) is an arena of large blocks carved by pointer
// bumping and released all at once with SLHFree.
#ifndef MFA_BASE_ALLOC_H
#define MFA_BASE_ALLOC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Records one block of a short-lived heap.
typedef struct ListElt {
  char eyecatcher[4]; // "LSTE", not terminated
  uint32_t size;      // size of the recorded block
  char *data;
  struct ListElt *next;
} ListElt;

typedef struct ShortLivedHeap {
  char eyecatcher[8];   // "SLH SLH ", not terminated
  char *nextFree;       // null before the first block
  ListElt *segmentList; // every block obtained, the current block first
  uint32_t remaining;   // bytes still free in the current block
  uint32_t maxBlocks;   // ordinary and oversize blocks together
  uint32_t blockCount;
  uint32_t blockSize;
} ShortLivedHeap;

typedef struct StringListElt {
  char *string;
  struct StringListElt *next;
} StringListElt;

// Lives in its SLH; stores the caller's string pointers without copying.
typedef struct StringList {
  ShortLivedHeap *slh;
  int count;
  int totalLength; // sum of the element lengths, without terminators
  StringListElt *head;
  StringListElt *tail;
} StringList;

// A new list element ("ListElt") holding data, next and size.
ListElt *cons(char *data, ListElt *next, uint32_t size);

// A new, empty heap; no block is obtained before the first allocation.
// Release it with SLHFree. Null when the heap record cannot be allocated.
ShortLivedHeap *makeShortLivedHeap(int blockSize, int maxBlocks);
ShortLivedHeap *makeShortLivedHeap32(int blockSize, int maxBlocks);
ShortLivedHeap *makeShortLivedHeap64(int blockSize, int maxBlocks);
ShortLivedHeap *makeShortLivedHeapInternal(int blockSize, int maxBlocks, int above2G);

// A piece of at least size bytes, 8-byte aligned within its block, or null.
// Pieces are never released individually and are not cleared again.
char *SLHAlloc(ShortLivedHeap *slh, int size);

// The part of SLHAlloc beyond the common case (the piece does not fit the
// current block), for SLHAllocInline; rounded is the size rounded up to 8.
char *slhAllocateSlowly(ShortLivedHeap *slh, int32_t rounded);

// Releases every block, every list element and the heap itself, each wiped
// where it was handed out. Accepts null. A thread keeps a few of the wiped
// ordinary blocks for its next heaps; they go back to the system heap when
// the thread ends.
void SLHFree(ShortLivedHeap *slh);

// Prints the extension failure report for a request of size bytes.
void reportSLHFailure(ShortLivedHeap *slh, int size);

char *safeMalloc(int size, const char *label);
// As safeMalloc; *progress is set to 2179 before zero-filling, 2180 after it
// and 2182 on the way out.
char *safeMalloc2(int size, const char *label, int *progress);
char *safeMalloc31(int size, const char *label);
char *safeMalloc31Key8(int size, const char *label);
// 64-bit storage is never returned: the matching releases do nothing.
char *safeMalloc64(int size, const char *label);
char *safeMalloc64ByToken(int size, const char *label, uint64_t token);
char *safeMalloc64Internal(int size, const char *label, uint64_t token);

char *malloc31(int size);
void free31(void *pointer, int size);

// Releases accept null. size must be the allocated size.
void safeFree(char *pointer, int size);
// As safeFree for a piece of which only the first used bytes were ever
// written: the rest is still as zero-filled, so only those are wiped.
void safeFreeUsed(char *pointer, int size, int used);
void safeFree31(char *pointer, int size);
void safeFree31Key8(char *pointer, int size);
void safeFree64(char *pointer, int size);
void safeFree64ByToken(char *pointer, int size, uint64_t token);
void safeFree64Internal(char *pointer, int size, uint64_t token);

// A new zero-filled piece of newSize bytes holding the first oldSize bytes of
// old, which is released. For growing only. On failure old is untouched and
// null is returned.
char *safeRealloc(char *old, int newSize, int oldSize, const char *label);

// safeMalloc under "NoisyMalloc" with one more line on failure.
char *noisyMalloc(int size);

// Copies in the system heap (release with freeString); null for null.
char *duplicateString(const char *text);
char *duplicateStringWithSize(const char *bytes, int length);
void freeString(char *text);

// Copies in an SLH. slhDuplicateString returns null for an empty string.
char *slhDuplicateString(ShortLivedHeap *slh, const char *text);
char *slhDuplicateStringWithSize(ShortLivedHeap *slh, const char *bytes, int length);
char *stringConcatenate(ShortLivedHeap *slh, const char *a, const char *b);
// count is the total number of strings, first and second included.
char *stringConcatenateMultiple(ShortLivedHeap *slh, int count, const char *first,
                                const char *second, ...);

StringList *makeStringList(ShortLivedHeap *slh);
void addToStringList(StringList *list, char *text);
// 1 when appended, 0 when an equal string is already present.
int addToStringListUnique(StringList *list, char *text);
int stringListContains(StringList *list, const char *text);
int stringListLength(StringList *list);
StringListElt *firstStringListElt(StringList *list);
char *stringListLast(StringList *list);
// The elements after the first skip, at most maximum of them, each wrapped in
// quote when quote is non-zero, joined by separator; one SLH string.
char *stringListPrint(StringList *list, int skip, int maximum, const char *separator, char quote);

#ifdef __cplusplus
}

// SLHAlloc, with the common case inline for C++ callers that carve many
// small pieces: the piece fits the current block.
inline char *SLHAllocInline(ShortLivedHeap *slh, int size) {
  if (slh == nullptr)
    return nullptr;
  int32_t rounded = static_cast<int32_t>((static_cast<uint32_t>(size) + 7u) & ~7u);
  if (rounded > 0 && static_cast<uint32_t>(rounded) <= slh->remaining) {
    char *piece = slh->nextFree;
    slh->nextFree += rounded;
    slh->remaining -= static_cast<uint32_t>(rounded);
    return piece;
  }
  return slhAllocateSlowly(slh, rounded);
}

// For C++ callers: one zero-filled T from safeMalloc (null when memory is
// short), and its release through safeFree, which wipes it first.
template <typename T> T *safeMallocRecord(const char *label) {
  return reinterpret_cast<T *>(safeMalloc(static_cast<int>(sizeof(T)), label));
}
template <typename T> void safeFreeRecord(T *record) {
  safeFree(reinterpret_cast<char *>(record), static_cast<int>(sizeof(T)));
}
#endif

#endif
