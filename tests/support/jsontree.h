// Comparing and printing parsed JSON trees, shared by the parser's tests and
// its fuzz targets. Header-only so that the fuzz targets need no test library.
#pragma once

#include <cstring>
#include <string>

#include "base/json.h"
#include "base/jsonprint.h"

namespace mfatest {

// Same types, values, keys and order all the way down.
inline bool sameJsonTree(const Json *a, const Json *b) {
  if (a == nullptr || b == nullptr || a->type != b->type)
    return a == b;
  switch (a->type) {
  case JSON_TYPE_NUMBER:
    return a->data.number == b->data.number;
  case JSON_TYPE_STRING:
    return strcmp(a->data.string, b->data.string) == 0;
  case JSON_TYPE_BOOLEAN:
    return a->data.boolean == b->data.boolean;
  case JSON_TYPE_INT64:
    return a->data.number64 == b->data.number64;
  case JSON_TYPE_DOUBLE:
    return a->data.dnumber == b->data.dnumber;
  case JSON_TYPE_OBJECT: {
    const JsonProperty *p = a->data.object->firstProperty, *q = b->data.object->firstProperty;
    for (; p != nullptr && q != nullptr; p = p->next, q = q->next)
      if (strcmp(p->key, q->key) != 0 || !sameJsonTree(p->value, q->value))
        return false;
    return p == q;
  }
  case JSON_TYPE_ARRAY: {
    const JsonArray *x = a->data.array, *y = b->data.array;
    if (x->count != y->count)
      return false;
    for (int i = 0; i < x->count; i++)
      if (!sameJsonTree(x->elements[i], y->elements[i]))
        return false;
    return true;
  }
  default:
    return true;
  }
}

inline int appendToString(jsonPrinter *printer, const char *bytes, int length) {
  static_cast<std::string *>(printer->sinkData)->append(bytes, length);
  return length;
}

// The compact text jsonPrint makes of value (native mode, no conversion).
inline std::string printJsonTree(Json *value) {
  std::string out;
  jsonPrinter *printer = makeCustomJsonPrinter(appendToString, &out);
  jsonPrint(printer, value);
  freeJsonPrinter(printer);
  return out;
}

} // namespace mfatest
