#include "base/logging.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/alloc.h"
#include "base/charsets.h"
#include "base/hashtable.h"

namespace {

constexpr int kSubcomponentLevels = 3;
constexpr int kVendorBuckets = 127;
constexpr int kRootTableEntries = 128;
constexpr int kChildBuckets = 128;
constexpr int kNodesPerBlock = 256;
constexpr uint32_t kMaxTableEntries = 65534;
constexpr int kBytesPerDumpLine = 32;

template <size_t N> void setEyecatcher(char (&field)[N], const char *text) {
  std::memcpy(field, text, N);
}

// Direct-indexed children of the system vendor's components; the entries
// follow the header in the same allocation.
struct alignas(LoggingComponent) LoggingComponentTable {
  char eyecatcher[8]; // "QNLOGCTB"
  uint32_t count;
};

LoggingComponent *tableEntries(LoggingComponentTable *table) {
  return reinterpret_cast<LoggingComponent *>(table + 1);
}

int tableBytes(uint32_t count) {
  return static_cast<int>(sizeof(LoggingComponentTable) + count * sizeof(LoggingComponent));
}

struct LoggingAnchor {
  char eyecatcher[8]; // "QNLOGQNA"
  LoggingDestination destinations[LOG_DESTINATION_COUNT];
  LoggingComponentTable topTable; // one entry: root
  LoggingComponent root;
};

struct LoggingVendor {
  char eyecatcher[8]; // "QNLOGVNR"
  uint16_t id;
  LoggingDestination destinations[LOG_DESTINATION_COUNT];
  LoggingComponent root;
};

// Children of other vendors' components, keyed by part number. A node is the
// key, the next node, then the value.
struct LogHTNode {
  uint64_t key;
  LogHTNode *next;
};

struct LoggingHashTable {
  char eyecatcher[8]; // "QNLOGHTB"
  int32_t bucketCount;
  int32_t valueSize;
  LogHTNode **buckets;
  fixedBlockMgr *nodes;
  void (*cleaner)(void *value);
};

} // namespace

struct LoggingContext {
  char eyecatcher[8]; // "QNLOGCTX"
  hashtable *vendors; // other vendors by id
  LoggingAnchor *anchor;
};

namespace {

LoggingContext *installedContext;

void *nodeValue(LogHTNode *node) {
  return node + 1;
}

LoggingHashTable *logHTCreate(int bucketCount, int valueSize, void (*cleaner)(void *)) {
  auto *table = safeMallocRecord<LoggingHashTable>("LoggingHashTable");
  if (table == nullptr) {
    return nullptr;
  }
  table->buckets = reinterpret_cast<LogHTNode **>(
      safeMalloc(bucketCount * static_cast<int>(sizeof(LogHTNode *)), "LGHT Backbone"));
  table->nodes =
      fbMgrCreate(valueSize + static_cast<int>(sizeof(LogHTNode)), kNodesPerBlock, table);
  if (table->buckets == nullptr || table->nodes == nullptr) {
    safeFree(reinterpret_cast<char *>(table->buckets),
             bucketCount * static_cast<int>(sizeof(LogHTNode *)));
    fbMgrDestroy(table->nodes);
    safeFreeRecord(table);
    return nullptr;
  }
  setEyecatcher(table->eyecatcher, "QNLOGHTB");
  table->bucketCount = bucketCount;
  table->valueSize = valueSize;
  table->cleaner = cleaner;
  return table;
}

void *logHTGet(LoggingHashTable *table, uint64_t key) {
  for (LogHTNode *node = table->buckets[key % table->bucketCount]; node; node = node->next) {
    if (node->key == key) {
      return nodeValue(node);
    }
  }
  return nullptr;
}

// Stores a copy of value under key and returns the stored copy, or null.
void *logHTPut(LoggingHashTable *table, uint64_t key, const void *value) {
  void *stored = logHTGet(table, key);
  if (stored == nullptr) {
    auto *node = static_cast<LogHTNode *>(fbMgrAlloc(table->nodes));
    if (node == nullptr) {
      return nullptr;
    }
    LogHTNode **head = &table->buckets[key % table->bucketCount];
    node->key = key;
    node->next = *head;
    *head = node;
    stored = nodeValue(node);
  }
  std::memcpy(stored, value, static_cast<size_t>(table->valueSize));
  return stored;
}

void logHTDestroy(LoggingHashTable *table) {
  if (table == nullptr) {
    return;
  }
  for (int i = 0; i < table->bucketCount; i++) {
    for (LogHTNode *node = table->buckets[i]; node; node = node->next) {
      if (table->cleaner != nullptr) {
        table->cleaner(nodeValue(node));
      }
    }
  }
  fbMgrDestroy(table->nodes);
  safeFree(reinterpret_cast<char *>(table->buckets),
           table->bucketCount * static_cast<int>(sizeof(LogHTNode *)));
  safeFreeRecord(table);
}

void destroyHashedChildren(void *value) {
  logHTDestroy(static_cast<LoggingHashTable *>(static_cast<LoggingComponent *>(value)->children));
}

LoggingComponentTable *makeComponentTable(uint32_t count) {
  auto *table = reinterpret_cast<LoggingComponentTable *>(
      safeMalloc(tableBytes(count), "LoggingComponentTable"));
  if (table != nullptr) {
    setEyecatcher(table->eyecatcher, "QNLOGCTB");
    table->count = count;
  }
  return table;
}

void freeComponentTable(LoggingComponentTable *table) {
  if (table == nullptr) {
    return;
  }
  for (uint32_t i = 0; i < table->count; i++) {
    freeComponentTable(static_cast<LoggingComponentTable *>(tableEntries(table)[i].children));
  }
  safeFree(reinterpret_cast<char *>(table), tableBytes(table->count));
}

// A zeroed table of count entries holding the old one's entries; the old one
// is released. Null (old untouched) when memory runs out.
LoggingComponentTable *reallocComponentTable(LoggingComponentTable *old, uint32_t count) {
  LoggingComponentTable *table = makeComponentTable(count);
  if (table != nullptr && old != nullptr) {
    std::memcpy(tableEntries(table), tableEntries(old), old->count * sizeof(LoggingComponent));
    safeFree(reinterpret_cast<char *>(old), tableBytes(old->count));
  }
  return table;
}

LoggingAnchor *makeTavikAnchor() {
  auto *anchor = safeMallocRecord<LoggingAnchor>("LoggingTavikAnchor");
  if (anchor == nullptr) {
    return nullptr;
  }
  anchor->root.children = makeComponentTable(kRootTableEntries);
  if (anchor->root.children == nullptr) {
    safeFreeRecord(anchor);
    return nullptr;
  }
  setEyecatcher(anchor->eyecatcher, "QNLOGQNA");
  setEyecatcher(anchor->topTable.eyecatcher, "QNLOGCTB");
  anchor->topTable.count = 1;
  return anchor;
}

void freeTavikAnchor(LoggingAnchor *anchor) {
  if (anchor != nullptr) {
    freeComponentTable(static_cast<LoggingComponentTable *>(anchor->root.children));
    safeFreeRecord(anchor);
  }
}

LoggingVendor *makeVendor(uint16_t id) {
  auto *vendor = safeMallocRecord<LoggingVendor>("LoggingVendor");
  if (vendor != nullptr) {
    setEyecatcher(vendor->eyecatcher, "QNLOGVNR");
    vendor->id = id;
  }
  return vendor;
}

void freeVendor(void *, void *, void *value) {
  auto *vendor = static_cast<LoggingVendor *>(value);
  logHTDestroy(static_cast<LoggingHashTable *>(vendor->root.children));
  safeFreeRecord(vendor);
}

struct ComponentPath {
  uint16_t vendor;
  uint16_t parts[kSubcomponentLevels];

  explicit ComponentPath(uint64_t id)
      : vendor(static_cast<uint16_t>(id >> 48)), parts{static_cast<uint16_t>(id >> 32),
                                                       static_cast<uint16_t>(id >> 16),
                                                       static_cast<uint16_t>(id)} {}
};

// A vendor's destinations and component tree; the system vendor keeps its
// children in direct-indexed tables, the others in logging hash tables.
struct VendorView {
  LoggingDestination *destinations = nullptr;
  LoggingComponent *root = nullptr;
  bool direct = false;

  explicit operator bool() const { return root != nullptr; }
};

VendorView viewOf(LoggingAnchor *anchor) {
  return {anchor->destinations, &anchor->root, true};
}
VendorView viewOf(LoggingVendor *vendor) {
  return {vendor->destinations, &vendor->root, false};
}

VendorView findVendor(LoggingContext *context, uint16_t id) {
  if (id == LOG_VENDOR_SYSTEM) {
    return viewOf(context->anchor);
  }
  auto *vendor = static_cast<LoggingVendor *>(htUIntGet(context->vendors, id));
  return vendor != nullptr ? viewOf(vendor) : VendorView{};
}

VendorView findOrMakeVendor(LoggingContext *context, uint16_t id) {
  if (VendorView view = findVendor(context, id)) {
    return view;
  }
  LoggingVendor *vendor = makeVendor(id);
  if (vendor == nullptr) {
    return {};
  }
  if (htUIntPut(context->vendors, id, vendor) < 0) {
    safeFreeRecord(vendor);
    return {};
  }
  return viewOf(vendor);
}

LoggingComponent *findChild(const VendorView &view, LoggingComponent *entry, uint16_t part) {
  if (entry->children == nullptr) {
    return nullptr;
  }
  if (view.direct) {
    auto *table = static_cast<LoggingComponentTable *>(entry->children);
    return part < table->count ? &tableEntries(table)[part] : nullptr;
  }
  return static_cast<LoggingComponent *>(
      logHTGet(static_cast<LoggingHashTable *>(entry->children), part));
}

LoggingComponent *makeChild(const VendorView &view, LoggingComponent *entry, uint16_t part) {
  if (view.direct) {
    auto *table = static_cast<LoggingComponentTable *>(entry->children);
    if (table == nullptr || table->count <= part) {
      // Room for twice the part asked for, so that neighbours come cheap; the
      // largest part number still needs its own slot.
      uint32_t count = 2u * part < kMaxTableEntries ? 2u * part : kMaxTableEntries;
      count = count + 1 > part + 1u ? count + 1 : part + 1u;
      table = reallocComponentTable(table, count);
      if (table == nullptr) {
        return nullptr;
      }
      entry->children = table;
    }
    return &tableEntries(table)[part];
  }
  if (entry->children == nullptr) {
    entry->children = logHTCreate(kChildBuckets, static_cast<int>(sizeof(LoggingComponent)),
                                  destroyHashedChildren);
    if (entry->children == nullptr) {
      return nullptr;
    }
  }
  if (LoggingComponent *child = findChild(view, entry, part)) {
    return child;
  }
  LoggingComponent blank{};
  return static_cast<LoggingComponent *>(
      logHTPut(static_cast<LoggingHashTable *>(entry->children), part, &blank));
}

struct FoundComponent {
  LoggingComponent *entry = nullptr; // null unless found and configured
  LoggingDestination *destinations = nullptr;
  int effectiveLevel = 0;
};

// Walks the component's path; the effective level is the largest level met,
// the root's included.
FoundComponent getComponent(LoggingContext *context, uint64_t componentId) {
  FoundComponent found;
  ComponentPath path(componentId);
  VendorView view = findVendor(context, path.vendor);
  if (!view) {
    return found;
  }
  LoggingComponent *entry = view.root;
  found.effectiveLevel = entry->level;
  for (uint16_t part : path.parts) {
    if (part == 0) {
      break;
    }
    entry = findChild(view, entry, part);
    if (entry == nullptr) {
      return found;
    }
    if (entry->level > found.effectiveLevel) {
      found.effectiveLevel = entry->level;
    }
  }
  if (entry->flags & LOG_COMPONENT_CONFIGURED) {
    found.entry = entry;
    found.destinations = view.destinations;
  }
  return found;
}

LoggingContext *contextOr(LoggingContext *context) {
  return context != nullptr ? context : installedContext;
}

// Formats one of the logging system's own complaints.
__attribute__((format(printf, 1, 2))) void complain(const char *format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  lastResortLog(text);
}

void printToStream(LoggingContext *, LoggingComponent *, void *data, const char *format,
                   va_list args) {
  vfprintf(static_cast<FILE *>(data), format, args);
}

void callPrint(LoggingContext *context, LoggingComponent *component,
               const LoggingDestination *destination, const char *format, ...) {
  va_list args;
  va_start(args, format);
  destination->print(context, component, destination->data, format, args);
  va_end(args);
}

// The logging system's complaints differ between messages and dumps.
struct Writing {
  const char *outOfRange;
  const char *notInitialized;
};
constexpr Writing kLogging{"Destination %d is out of range (log)\n",
                           "Destination %d is not initialized for logging\n"};
constexpr Writing kDumping{"Destination %d is out of range (dump)\n",
                           "Destination %d is not initialized for dumping\n"};

// The destination a message for this component goes to, or null when the
// message ends here (with the complaint or null-destination text written).
const LoggingDestination *selectDestination(const FoundComponent &found, const Writing &writing) {
  int index = found.entry->destination;
  if (index >= LOG_DESTINATION_COUNT) {
    complain(writing.outOfRange, index);
    return nullptr;
  }
  const LoggingDestination *destination = &found.destinations[index];
  if (index == 0 && destination->initialized) {
    fputs("dev/null case", stdout);
    return nullptr;
  }
  if (!destination->initialized) {
    complain(writing.notInitialized, index);
    return nullptr;
  }
  return destination->print != nullptr ? destination : nullptr;
}

// The component when a message at level is to be written to it.
FoundComponent componentToWrite(LoggingContext *context, uint64_t componentId, int level) {
  if (context == nullptr || !logShouldTraceInternal(context, componentId, level)) {
    return {};
  }
  FoundComponent found = getComponent(context, componentId);
  if (found.entry == nullptr || level > found.effectiveLevel) {
    return {};
  }
  return found;
}

} // namespace

extern "C" LoggingContext *makeLocalLoggingContext(void) {
  auto *context = safeMallocRecord<LoggingContext>("LoggingContext");
  if (context == nullptr) {
    return nullptr;
  }
  setEyecatcher(context->eyecatcher, "QNLOGCTX");
  context->vendors = htCreate(kVendorBuckets, nullptr, nullptr, nullptr, nullptr);
  context->anchor = makeTavikAnchor();
  if (context->vendors == nullptr || context->anchor == nullptr) {
    freeLoggingContext(context);
    return nullptr;
  }
  return context;
}

extern "C" void freeLoggingContext(LoggingContext *context) {
  if (context == nullptr) {
    return;
  }
  htMap2(context->vendors, freeVendor, nullptr);
  htDestroy(context->vendors);
  freeTavikAnchor(context->anchor);
  safeFreeRecord(context);
}

extern "C" LoggingContext *makeLoggingContext(void) {
  if (installedContext == nullptr) {
    installedContext = makeLocalLoggingContext();
  }
  return installedContext;
}

extern "C" void removeLoggingContext(void) {
  freeLoggingContext(installedContext);
  installedContext = nullptr;
}

extern "C" LoggingContext *getLoggingContext(void) {
  return installedContext;
}

extern "C" void setLoggingContext(LoggingContext *context) {
  installedContext = context;
}

extern "C" LoggingDestination *logConfigureDestination2(LoggingContext *context,
                                                        uint32_t destinationId, const char *name,
                                                        void *data, LogHandler print,
                                                        DataDumper dump) {
  context = contextOr(context);
  uint32_t index = destinationId & 0xFFFF;
  if (index >= LOG_DESTINATION_COUNT) {
    complain("logConfigureDestination: destination ID too big %d, original ID 0x%X\n",
             static_cast<int>(index), destinationId);
    return nullptr;
  }
  if (context == nullptr) {
    return nullptr;
  }
  VendorView view = findOrMakeVendor(context, static_cast<uint16_t>(destinationId >> 16));
  if (!view) {
    return nullptr;
  }
  LoggingDestination *destination = &view.destinations[index];
  *destination = LoggingDestination{};
  setEyecatcher(destination->eyecatcher, "QNLOGDST");
  destination->index = static_cast<int32_t>(index);
  destination->name = name;
  destination->data = data;
  destination->print = print;
  destination->dump = dump;
  destination->initialized = 1;
  return destination;
}

extern "C" LoggingDestination *logConfigureDestination(LoggingContext *context,
                                                       uint32_t destinationId, const char *name,
                                                       void *data, LogHandler print) {
  return logConfigureDestination2(context, destinationId, name, data, print,
                                  standardDumperFunction);
}

extern "C" void logConfigureStandardDestinations(LoggingContext *context) {
  logConfigureDestination2(context, LOG_DEST_DEV_NULL, "/dev/null", nullptr, nullptr, nullptr);
  logConfigureDestination(context, LOG_DEST_PRINTF_STDOUT, "printf(stdout)", stdout, printToStream);
  logConfigureDestination(context, LOG_DEST_PRINTF_STDERR, "printf(stderr)", stderr, printToStream);
}

extern "C" void logConfigureComponent(LoggingContext *context, uint64_t componentId,
                                      const char *name, uint32_t destinationId, int level) {
  context = contextOr(context);
  if (context == nullptr) {
    return;
  }
  ComponentPath path(componentId);
  VendorView view = findOrMakeVendor(context, path.vendor);
  if (!view) {
    return;
  }
  LoggingComponent *entry = view.root;
  for (uint16_t part : path.parts) {
    if (part == 0) {
      break;
    }
    entry = makeChild(view, entry, part);
    if (entry == nullptr) {
      return;
    }
  }
  entry->flags |= LOG_COMPONENT_CONFIGURED;
  entry->level = static_cast<uint8_t>(level);
  entry->destination = static_cast<uint16_t>(destinationId);
  entry->name = name;
}

extern "C" void logSetLevel(LoggingContext *context, uint64_t componentId, int level) {
  context = contextOr(context);
  if (context == nullptr) {
    return;
  }
  if (LoggingComponent *entry = getComponent(context, componentId).entry) {
    entry->level = static_cast<uint8_t>(level);
  }
}

extern "C" int logGetLevel(LoggingContext *context, uint64_t componentId) {
  context = contextOr(context);
  if (context == nullptr) {
    return -1;
  }
  LoggingComponent *entry = getComponent(context, componentId).entry;
  return entry != nullptr ? entry->level : -1;
}

extern "C" int logShouldTraceInternal(LoggingContext *context, uint64_t componentId, int level) {
  context = contextOr(context);
  if (context == nullptr) {
    return 0;
  }
  ComponentPath path(componentId);
  if (path.vendor != LOG_VENDOR_SYSTEM) {
    return level <= getComponent(context, componentId).effectiveLevel ? 1 : 0;
  }
  // The quick walk stops at the first entry whose level admits the message.
  LoggingComponent *entry = &context->anchor->root;
  for (uint16_t part : path.parts) {
    if (level <= entry->level || part == 0 || entry->children == nullptr) {
      break;
    }
    auto *table = static_cast<LoggingComponentTable *>(entry->children);
    entry = &tableEntries(table)[part % table->count];
  }
  return level <= entry->level ? 1 : 0;
}

extern "C" void tvklog(LoggingContext *context, uint64_t componentId, int level, const char *format,
                       ...) {
  context = contextOr(context);
  FoundComponent found = componentToWrite(context, componentId, level);
  if (found.entry == nullptr) {
    return;
  }
  if (const LoggingDestination *destination = selectDestination(found, kLogging)) {
    va_list args;
    va_start(args, format);
    destination->print(context, found.entry, destination->data, format, args);
    va_end(args);
  }
}

extern "C" void tvkdump(LoggingContext *context, uint64_t componentId, int level, const void *data,
                        int length) {
  context = contextOr(context);
  FoundComponent found = componentToWrite(context, componentId, level);
  if (found.entry == nullptr) {
    return;
  }
  const LoggingDestination *destination = selectDestination(found, kDumping);
  if (destination == nullptr || destination->dump == nullptr) {
    return;
  }
  char line[LOG_DUMP_LINE_SIZE];
  for (int n = 0;; n++) {
    const char *text = destination->dump(line, sizeof line, data, length, n);
    if (text == nullptr) {
      break;
    }
    callPrint(context, found.entry, destination, "%s\n", text);
  }
}

extern "C" char *standardDumperFunction(char *buffer, int bufferSize, const void *data, int length,
                                        int lineNumber) {
  // Offset, 32 hex pairs with their group blanks, and the text column.
  constexpr int kLineLength = 8 + 2 + 32 * 2 + 8 + 2 + 32 + 1;
  if (buffer == nullptr || bufferSize <= kLineLength || data == nullptr || lineNumber < 0 ||
      lineNumber > (length - 1) / kBytesPerDumpLine || length <= 0) {
    return nullptr;
  }
  static const unsigned char *const ebcdicToAscii = getTranslationTable("e2atable");
  const auto *bytes = static_cast<const unsigned char *>(data) + lineNumber * kBytesPerDumpLine;
  int present = length - lineNumber * kBytesPerDumpLine;
  if (present > kBytesPerDumpLine) {
    present = kBytesPerDumpLine;
  }
  static constexpr char kHex[] = "0123456789ABCDEF";
  char *out = buffer + snprintf(buffer, static_cast<size_t>(bufferSize), "%08X  ",
                                static_cast<unsigned>(lineNumber * kBytesPerDumpLine));
  for (int i = 0; i < kBytesPerDumpLine; i++) {
    if (i % 4 == 0 && i > 0) {
      *out++ = ' ';
    }
    if (i == 16) {
      *out++ = ' ';
    }
    *out++ = i < present ? kHex[bytes[i] >> 4] : ' ';
    *out++ = i < present ? kHex[bytes[i] & 0x0F] : ' ';
  }
  *out++ = ' ';
  *out++ = '|';
  for (int i = 0; i < present; i++) {
    unsigned char c = ebcdicToAscii[bytes[i]];
    *out++ = c >= ' ' && c <= '~' && c != '@' ? static_cast<char>(c) : '.';
  }
  *out++ = '|';
  *out = '\0';
  return buffer;
}

extern "C" void lastResortLog(const char *text) {
  puts(text);
}
