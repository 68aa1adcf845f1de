#include "base/hashtable.h"

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/alloc.h"

namespace {

constexpr int kBlockLinkSize = sizeof(char *);

int blockBytes(const fixedBlockMgr *manager) {
  return static_cast<int>(manager->objectsPerBlock * manager->objectSize) + kBlockLinkSize;
}

char *nextLink(char *object) {
  char *next;
  std::memcpy(&next, object, sizeof next);
  return next;
}

void setLink(char *object, char *next) {
  std::memcpy(object, &next, sizeof next);
}

} // namespace

extern "C" fixedBlockMgr *fbMgrCreate(int objectSize, int objectsPerBlock, void *owner) {
  if (objectSize < 0 || objectsPerBlock < 1) {
    return nullptr;
  }
  // Every object must hold the free-list link and keep the next one aligned.
  long long size = objectSize < kBlockLinkSize ? kBlockLinkSize : (objectSize + 7LL) / 8 * 8;
  if (size * objectsPerBlock + kBlockLinkSize > INT_MAX) {
    return nullptr;
  }
  auto *manager = safeMallocRecord<fixedBlockMgr>("FixedBlockManager");
  if (manager == nullptr) {
    return nullptr;
  }
  manager->owner = owner;
  manager->objectSize = static_cast<uint32_t>(size);
  manager->objectsPerBlock = static_cast<uint32_t>(objectsPerBlock);
  return manager;
}

extern "C" void *fbMgrAlloc(fixedBlockMgr *manager) {
  if (manager == nullptr) {
    printf("fbMgr of %x is NULL!!\n", 0u);
    return nullptr;
  }
  if (manager->freeList != nullptr) {
    char *object = manager->freeList;
    manager->freeList = nextLink(object);
    return object;
  }
  if (manager->remaining == 0) {
    char *block = safeMalloc(blockBytes(manager), "FixedBlockExtend");
    if (block == nullptr) {
      return nullptr;
    }
    setLink(block, manager->blocks);
    manager->blocks = block;
    manager->nextObject = block + kBlockLinkSize;
    manager->remaining = manager->objectsPerBlock;
  }
  char *object = manager->nextObject;
  manager->nextObject += manager->objectSize;
  manager->remaining--;
  return object;
}

extern "C" void fbMgrFree(fixedBlockMgr *manager, void *object) {
  if (manager == nullptr || object == nullptr) {
    return;
  }
  setLink(static_cast<char *>(object), manager->freeList);
  manager->freeList = static_cast<char *>(object);
}

extern "C" void fbMgrDestroy(fixedBlockMgr *manager) {
  if (manager == nullptr) {
    return;
  }
  int size = blockBytes(manager);
  for (char *block = manager->blocks; block != nullptr;) {
    char *previous = nextLink(block);
    safeFree(block, size);
    block = previous;
  }
  safeFreeRecord(manager);
}

namespace {

// Node blocks grow with the backbone so that small tables stay small.
int htAdjustBlocks(int backboneSize) {
  constexpr struct {
    int minimum;
    int nodes;
  } steps[] = {{768, 341}, {512, 170}, {256, 85}, {128, 42}, {64, 21}, {16, 10}, {8, 5}};
  for (const auto &step : steps) {
    if (backboneSize >= step.minimum) {
      return step.nodes;
    }
  }
  return 2;
}

long long tableBytes(long long backboneSize) {
  return static_cast<long long>(sizeof(hashtable)) +
         backboneSize * static_cast<long long>(sizeof(hashentry *));
}

uint32_t keyWord(void *key) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(key));
}

// The three key families differ only in how a key picks its bucket and how
// two keys are compared; everything else is shared below.
struct GenericKeys {
  static uint32_t bucket(const hashtable *table, void *key) {
    uint32_t hash = table->hash != nullptr ? static_cast<uint32_t>(table->hash(key)) : keyWord(key);
    return (hash & 0x7FFFFFFFu) % static_cast<uint32_t>(table->backboneSize);
  }
  static bool equal(const hashtable *table, void *stored, void *sought) {
    return table->compare != nullptr ? table->compare(stored, sought) != 0 : stored == sought;
  }
};

struct IntKeys {
  static uint32_t bucket(const hashtable *table, void *key) {
    return (keyWord(key) & 0x7FFFFFFFu) % static_cast<uint32_t>(table->backboneSize);
  }
  static bool equal(const hashtable *, void *stored, void *sought) {
    return keyWord(stored) == keyWord(sought);
  }
};

struct UIntKeys {
  static uint32_t bucket(const hashtable *table, void *key) {
    return keyWord(key) % static_cast<uint32_t>(table->backboneSize);
  }
  static bool equal(const hashtable *, void *stored, void *sought) {
    return keyWord(stored) == keyWord(sought);
  }
};

void *intKey(int key) {
  return reinterpret_cast<void *>(static_cast<intptr_t>(key));
}
void *uintKey(uint32_t key) {
  return reinterpret_cast<void *>(static_cast<uintptr_t>(key));
}

// A key's bucket head and the link that points at its node (or the null link
// that ends the chain); the hash callback runs once per operation.
struct Slot {
  hashentry **head;
  hashentry **link;
};

template <typename Keys> Slot locate(hashtable *table, void *key) {
  hashentry **head = &table->backbone[Keys::bucket(table, key)];
  hashentry **link = head;
  while (*link != nullptr && !Keys::equal(table, (*link)->key, key)) {
    link = &(*link)->next;
  }
  return {head, link};
}

void unlinkNode(hashtable *table, hashentry **link, bool reclaimValue) {
  hashentry *node = *link;
  *link = node->next;
  if (table->keyReclaimer != nullptr) {
    table->keyReclaimer(node->key);
  }
  if (reclaimValue && table->valueReclaimer != nullptr) {
    table->valueReclaimer(node->value);
  }
  fbMgrFree(table->nodes, node);
}

template <typename Keys> int put(hashtable *table, void *key, void *value, void **replaced) {
  if (table == nullptr) {
    return -1;
  }
  Slot slot = locate<Keys>(table, key);
  if (hashentry *node = *slot.link; node != nullptr) {
    if (table->keepExisting != nullptr && table->keepExisting(node->value) != 0) {
      return 2;
    }
    if (table->keyReclaimer != nullptr) {
      table->keyReclaimer(node->key);
    }
    if (replaced != nullptr) {
      *replaced = node->value;
    } else if (table->valueReclaimer != nullptr) {
      table->valueReclaimer(node->value);
    }
    node->key = key;
    node->value = value;
    return 1;
  }
  auto *node = static_cast<hashentry *>(fbMgrAlloc(table->nodes));
  if (node == nullptr) {
    return -1;
  }
  node->key = key;
  node->value = value;
  node->next = *slot.head;
  *slot.head = node;
  return 0;
}

template <typename Keys> void *get(hashtable *table, void *key, bool expiredWhenNonZero) {
  if (table == nullptr) {
    return nullptr;
  }
  hashentry **link = locate<Keys>(table, key).link;
  if (*link == nullptr) {
    return nullptr;
  }
  void *value = (*link)->value;
  if (table->expiry != nullptr && (table->expiry(value) != 0) == expiredWhenNonZero) {
    unlinkNode(table, link, true);
    return nullptr;
  }
  if (table->takeOnce != nullptr && table->takeOnce(value) != 0) {
    unlinkNode(table, link, false);
  }
  return value;
}

} // namespace

extern "C" hashtable *htCreate(int backboneSize, htHashFunction hash, htCompareFunction compare,
                               htReclaimer keyReclaimer, htReclaimer valueReclaimer) {
  int size = backboneSize < 7 ? 7 : backboneSize;
  if (size % 2 == 0) {
    size--;
  }
  if (tableBytes(size) > INT_MAX) {
    return nullptr;
  }
  int bytes = static_cast<int>(tableBytes(size));
  auto *table = reinterpret_cast<hashtable *>(safeMalloc(bytes, "HashTable"));
  if (table == nullptr) {
    return nullptr;
  }
  table->nodes = fbMgrCreate(sizeof(hashentry), htAdjustBlocks(size), table);
  if (table->nodes == nullptr) {
    safeFree(reinterpret_cast<char *>(table), bytes);
    return nullptr;
  }
  std::memcpy(table->eyecatcher, "HTBL", sizeof table->eyecatcher);
  table->backboneSize = size;
  table->backbone = reinterpret_cast<hashentry **>(table + 1);
  table->hash = hash;
  table->compare = compare;
  table->keyReclaimer = keyReclaimer;
  table->valueReclaimer = valueReclaimer;
  return table;
}

extern "C" void htAlter(hashtable *table, htValueHook keepExisting, htValueHook expiry,
                        htValueHook takeOnce) {
  if (table == nullptr) {
    return;
  }
  table->keepExisting = keepExisting;
  table->expiry = expiry;
  table->takeOnce = takeOnce;
}

extern "C" void htDestroy(hashtable *table) {
  if (table == nullptr) {
    return;
  }
  fbMgrDestroy(table->nodes);
  safeFree(reinterpret_cast<char *>(table), static_cast<int>(tableBytes(table->backboneSize)));
}

extern "C" int htPut(hashtable *table, void *key, void *value) {
  return put<GenericKeys>(table, key, value, nullptr);
}

extern "C" int htPut2(hashtable *table, void *key, void *value, void **replaced) {
  return put<GenericKeys>(table, key, value, replaced);
}

extern "C" void *htGet(hashtable *table, void *key) {
  return get<GenericKeys>(table, key, true);
}

extern "C" int htRemove(hashtable *table, void *key) {
  if (table == nullptr) {
    return 0;
  }
  hashentry **link = locate<GenericKeys>(table, key).link;
  if (*link == nullptr) {
    return 0;
  }
  unlinkNode(table, link, true);
  return 1;
}

extern "C" int htIntPut(hashtable *table, int key, void *value) {
  return htIntPut2(table, key, value, nullptr);
}

extern "C" int htIntPut2(hashtable *table, int key, void *value, void **replaced) {
  return put<IntKeys>(table, intKey(key), value, replaced);
}

// Integer gets keep entries only while the expiry hook says they are alive,
// the opposite sense of the other families; callers rely on it.
extern "C" void *htIntGet(hashtable *table, int key) {
  return get<IntKeys>(table, intKey(key), false);
}

extern "C" int htUIntPut(hashtable *table, uint32_t key, void *value) {
  return put<UIntKeys>(table, uintKey(key), value, nullptr);
}

extern "C" void *htUIntGet(hashtable *table, uint32_t key) {
  return get<UIntKeys>(table, uintKey(key), true);
}

namespace {

template <typename Visit> void forEachNode(hashtable *table, Visit visit) {
  if (table == nullptr) {
    return;
  }
  for (int i = 0; i < table->backboneSize; i++) {
    for (hashentry *node = table->backbone[i]; node != nullptr;) {
      hashentry *next = node->next; // visit may release the node
      visit(node);
      node = next;
    }
  }
}

} // namespace

extern "C" int htCount(hashtable *table) {
  int count = 0;
  forEachNode(table, [&](hashentry *) { count++; });
  return count;
}

extern "C" void htMap(hashtable *table, void (*visit)(void *key, void *value)) {
  forEachNode(table, [&](hashentry *node) { visit(node->key, node->value); });
}

extern "C" void htMap2(hashtable *table, void (*visit)(void *data, void *key, void *value),
                       void *data) {
  forEachNode(table, [&](hashentry *node) { visit(data, node->key, node->value); });
}

extern "C" int htPrune(hashtable *table, int (*predicate)(void *data, void *key, void *value),
                       void (*onRemoved)(void *data, void *value), void *data) {
  if (table == nullptr || predicate == nullptr) {
    return 0;
  }
  int removed = 0;
  for (int i = 0; i < table->backboneSize; i++) {
    hashentry **link = &table->backbone[i];
    while (*link != nullptr) {
      hashentry *node = *link;
      if (predicate(data, node->key, node->value) == 0) {
        link = &node->next;
        continue;
      }
      void *value = node->value;
      unlinkNode(table, link, false);
      if (onRemoved != nullptr) {
        onRemoved(data, value);
      }
      removed++;
    }
  }
  return removed;
}

extern "C" void htDump(hashtable *table) {
  if (table == nullptr) {
    return;
  }
  auto word = [](const void *p) { return keyWord(const_cast<void *>(p)); };
  printf("ht backboneSize=%d\n", table->backboneSize);
  fflush(stdout);
  for (int i = 0; i < table->backboneSize; i++) {
    hashentry *node = table->backbone[i];
    if (node == nullptr) {
      continue;
    }
    printf("in slot %d: entry=%x\n", i, word(node));
    fflush(stdout);
    for (; node != nullptr; node = node->next) {
      if (table->hash == stringHash) {
        const char *text = node->key != nullptr ? static_cast<char *>(node->key) : "";
        printf("  key=%x '%s' value: %x\n", word(node->key), text, word(node->value));
      } else {
        printf("  key=%x value: %x\n", word(node->key), word(node->value));
      }
      fflush(stdout);
    }
  }
}

extern "C" void *htAllocSmallObject(hashtable *table) {
  return table == nullptr ? nullptr : fbMgrAlloc(table->nodes);
}

extern "C" void htFreeSmallObject(hashtable *table, void *object) {
  if (table != nullptr) {
    fbMgrFree(table->nodes, object);
  }
}

extern "C" int stringHash(void *text) {
  uint32_t hash = 0;
  for (const char *c = static_cast<const char *>(text); c != nullptr && *c != '\0'; c++) {
    hash = (hash << 4) + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*c)));
  }
  return static_cast<int>(hash & 0x7FFFFFFFu);
}

extern "C" int stringCompare(void *a, void *b) {
  if (a == nullptr || b == nullptr) {
    return a == b ? 1 : 0;
  }
  return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0 ? 1 : 0;
}
