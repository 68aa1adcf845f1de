// Chained hash tables and the free-block manager that feeds them.
//
// A free-block manager is a pool of equal-sized objects carved from large
// blocks and recycled through a free list; objects go back to the system only
// when the manager is destroyed.
//
// A hash table has a fixed, odd-sized bucket array (the backbone); its entry
// nodes come from its own free-block manager. Keys and values are words
// (pointers or integers carried in pointers). Three key families share one
// table layout: generic keys (hash and compare callbacks), signed 32-bit keys
// and unsigned 32-bit keys; a table should be used with one family only.
#ifndef MFA_BASE_HASHTABLE_H
#define MFA_BASE_HASHTABLE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct fixedBlockMgr {
  void *owner;              // the structure that uses the pool, for diagnostics
  char *blocks;             // newest block first; a block's first word links the previous one
  char *freeList;           // a free object's first word links the next one
  char *nextObject;         // next uncarved object of the current block
  uint32_t objectSize;      // as requested, rounded up to a multiple of 8
  uint32_t objectsPerBlock; // at least 1
  uint32_t remaining;       // objects still uncarved in the current block
} fixedBlockMgr;

// A new manager (label "FixedBlockManager"), or null when memory runs out or
// a block would exceed the size of an allocation. Objects are at least 8 bytes.
fixedBlockMgr *fbMgrCreate(int objectSize, int objectsPerBlock, void *owner);
// An object: the most recently freed one, else the next one carved (zero-filled
// when carved, left as they were when recycled). Null when the manager is null
// (with a message) or a block cannot be obtained.
void *fbMgrAlloc(fixedBlockMgr *manager);
// Puts object on the free list; its first word is overwritten. Accepts null.
void fbMgrFree(fixedBlockMgr *manager, void *object);
// Releases every block, hence every object, and the manager. Accepts null.
void fbMgrDestroy(fixedBlockMgr *manager);

typedef struct hashentry {
  void *key;
  void *value;
  struct hashentry *next;
} hashentry;

typedef int (*htHashFunction)(void *key);
// Non-zero when the stored key equals the sought one.
typedef int (*htCompareFunction)(void *storedKey, void *soughtKey);
typedef void (*htReclaimer)(void *keyOrValue);
typedef int (*htValueHook)(void *value);

typedef struct hashtable {
  char eyecatcher[4]; // "HTBL", not terminated
  int32_t backboneSize;
  hashentry **backbone; // backboneSize buckets, inside the same allocation
  fixedBlockMgr *nodes;
  htHashFunction hash;
  htCompareFunction compare;
  htReclaimer keyReclaimer;
  htReclaimer valueReclaimer;
  htValueHook keepExisting; // non-zero for the existing value refuses a put
  htValueHook expiry;       // consulted by gets; see htGet and htIntGet
  htValueHook takeOnce;     // non-zero makes a get remove the entry
} hashtable;

// A new table (label "HashTable"), or null. Sizes below 7 become 7, even sizes
// are lowered by one. Null callbacks mean: the key word as hash, equality of
// key words, no reclaiming. Release with htDestroy.
hashtable *htCreate(int backboneSize, htHashFunction hash, htCompareFunction compare,
                    htReclaimer keyReclaimer, htReclaimer valueReclaimer);
// Installs the three hooks (any may be null).
void htAlter(hashtable *table, htValueHook keepExisting, htValueHook expiry, htValueHook takeOnce);
// Releases the nodes and the table; no reclaimer is called. Accepts null.
void htDestroy(hashtable *table);

// Puts return 0 for a new entry, 1 when an existing entry was replaced (the
// old key and value go to the reclaimers) and 2 when the keep-existing hook
// refused the put; -1 for a null table or when a node cannot be obtained.
int htPut(hashtable *table, void *key, void *value);
// As htPut; when replaced is not null and an entry is replaced, the old value
// is stored there and handed to the caller instead of the value reclaimer.
int htPut2(hashtable *table, void *key, void *value, void **replaced);
// The value, or null when absent. When the expiry hook answers non-zero the
// entry is removed (both reclaimers) and null returned; when the take-once
// hook answers non-zero the entry is removed (key reclaimer only) and its
// value returned.
void *htGet(hashtable *table, void *key);
// Removes the entry (both reclaimers); 1 when it existed, else 0.
int htRemove(hashtable *table, void *key);

int htIntPut(hashtable *table, int key, void *value);
int htIntPut2(hashtable *table, int key, void *value, void **replaced);
// As htGet, except that here the expiry hook removes the entry when it answers
// zero.
void *htIntGet(hashtable *table, int key);
int htUIntPut(hashtable *table, uint32_t key, void *value);
void *htUIntGet(hashtable *table, uint32_t key);

int htCount(hashtable *table);
void htMap(hashtable *table, void (*visit)(void *key, void *value));
void htMap2(hashtable *table, void (*visit)(void *data, void *key, void *value), void *data);
// Removes every entry for which predicate answers non-zero: the key reclaimer
// gets the key, onRemoved (if given) the value; the value reclaimer is not
// called. Returns the number removed.
int htPrune(hashtable *table, int (*predicate)(void *data, void *key, void *value),
            void (*onRemoved)(void *data, void *value), void *data);
// Prints the buckets and entries to standard output.
void htDump(hashtable *table);

// Lends a zero-filled or recycled 24-byte object from the table's node pool;
// give it back with htFreeSmallObject.
void *htAllocSmallObject(hashtable *table);
void htFreeSmallObject(hashtable *table, void *object);

// Hash and compare callbacks for terminated string keys.
int stringHash(void *text);
int stringCompare(void *a, void *b);

#ifdef __cplusplus
}
#endif

#endif
