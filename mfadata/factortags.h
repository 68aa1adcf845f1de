// Factor tags as JSON.
//
// A factor's tags are stored as one JSON object whose property names are the
// tag names and whose values are the tag values, all strings. A user
// interface sends them instead as an array of {"fieldName", "fieldValue"}
// objects. Tags built here carry nameOffset and valueOffset 0 and are
// released with factorTagList_destroy.
#ifndef MFA_MFADATA_FACTORTAGS_H
#define MFA_MFADATA_FACTORTAGS_H

#include <stdint.h>

#include "base/json.h"
#include "mfadata/usermfadata.h"

#ifdef __cplusplus
extern "C" {
#endif

// Parses the stored shape and hangs the tags, in property order, on
// data->tags; *count receives their number. A text that does not parse or is
// not an object gives no tags and a count of 0. A property whose value is not
// a string gives a tag without a value. The previous list is not released.
void createFactorTags(const char *json, factorData *data, uint32_t *count);

// 1 when the text is the stored shape whole: a JSON object whose values are
// all strings, so that createFactorTags reads every tag with its value.
// 0 otherwise (a text that does not parse, another JSON value, a value that
// is not a string), and when memory is short.
int isStoredFactorJson(const char *json);

// Builds tags from the interface shape: each element an object with the
// string "fieldName" and a string or number "fieldValue" (a number becomes its
// decimal text). *firstTag receives the list, *count the array's count.
void createFactorTagsUI(JsonArray *fields, factorTag **firstTag, uint32_t *count);

// createFactorJson on an empty list (the database layer's missing argument).
#define FACTORTAGS_EMPTY_LIST 80106

// The stored shape of the list starting at firstTag: 0 and a new text in
// *result (release with freeString), FACTORTAGS_EMPTY_LIST for a null
// firstTag or result or for a name or value holding byte 0xFF (which no
// reader of the stored text could get past), or MFADATA_NO_MEMORY when memory is short; *result is
// untouched on failure.
int createFactorJson(factorTag *firstTag, char **result);

#ifdef __cplusplus
}
#endif

#endif
