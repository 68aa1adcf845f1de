// The in-memory model of one user's multi-factor data: the user's factors,
// each with a list of named tags, and the policies that apply to the user.
//
// A record lives either in individually checked allocations or inside a
// short-lived heap (heap set). Pieces of a heap are never freed one by one;
// inHeap says the object itself came from the heap, ownsHeap that destroying
// the object also releases the heap.
#ifndef MFA_MFADATA_USERMFADATA_H
#define MFA_MFADATA_USERMFADATA_H

#include "base/alloc.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Status codes of the data model.
#define MFADATA_BAD_ARGUMENT 1200007
#define MFADATA_TOO_FEW_TAGS 1200013
#define MFADATA_BAD_SECTION 1200015
#define MFADATA_NO_MEMORY 1200020
#define MFADATA_DUPLICATE_TAG 1200056
#define MFADATA_NO_HEAP 1200058

// The errorField that kfactor_factorData_prevalidate reports for duplicate
// tag names.
#define MFADATA_ERROR_FIELD_TAG_NAME 32

// Factor arrays built from a factor-data buffer have room for this many
// entries (more when the buffer holds more factors).
#define MFADATA_FACTOR_SLOTS 16

typedef struct factorTag {
  struct factorTag *next;
  char *tagName;
  char *tagValue;       // may be null
  uint32_t nameOffset;  // from the section-table entry to the tag's entry; 0 when built in memory
  uint32_t valueOffset; // from the section-table entry to the value length field
} factorTag;

typedef struct factorData {
  factorTag *tags;
  char *factorName;
  char *date; // activation date text or null; "CURRENT" asks for the current date
  uint32_t activeFlag;
  uint32_t numTags;
  uint32_t stateFlag;      // non-zero for the factor to count towards a policy
  uint32_t capabilityBits; // 2: may satisfy a policy factor; 1: completes a policy
  ShortLivedHeap *heap;
  int32_t inHeap;
  int32_t ownsHeap;
} factorData;

typedef struct policyData {
  char *policyName;
  int32_t tokenTimeout;
  int32_t tokenReuse;
  uint32_t numFactors;
  char **factorNames; // numFactors names
  uint32_t satisfiable;
  ShortLivedHeap *heap;
  int32_t inHeap;
  int32_t ownsHeap;
} policyData;

typedef struct userMFAData {
  factorData **factors; // numFactors entries (null entries allowed)
  char *userid;
  uint32_t numFactors;
  uint8_t fallback;
  uint32_t numPolicies;
  char **policyNames;    // numPolicies names; a name may be null
  policyData **policies; // numPolicies entries, or null
  ShortLivedHeap *heap;
  int32_t inHeap;
  int32_t ownsHeap;
} userMFAData;

// Builds a record from a factor-data buffer of bufferLength bytes holding
// numFactors factor entries from offset 0 and numPolicies policy entries
// from policyOffset. With heap and useHeap the record itself comes from the
// heap; with a heap every other piece does. Without a heap and with ownHeap a
// heap is made for the record. With ownHeap destroying the record releases
// the heap. Returns 0 and the record in *result (release it with
// kfactor_userMFAData_destroy); 1200007 for a missing argument or a malformed
// buffer, 1200015 for an unknown section type, 1200020 when out of memory,
// 1200058 for useHeap without a heap to use.
int kfactor_userMFAData_create3(ShortLivedHeap *heap, int useHeap, int ownHeap, const char *userid,
                                int fallback, uint32_t numFactors, uint32_t numPolicies,
                                uint32_t policyOffset, const char *buffer, uint32_t bufferLength,
                                userMFAData **result);

// kfactor_userMFAData_create3 in checked allocations, without a heap.
int kfactor_userMFAData_create2(const char *userid, int fallback, uint32_t numFactors,
                                uint32_t numPolicies, uint32_t policyOffset, const char *buffer,
                                uint32_t bufferLength, userMFAData **result);

// kfactor_userMFAData_create2 without policies.
int kfactor_userMFAData_create(const char *userid, int fallback, uint32_t numFactors,
                               const char *buffer, uint32_t bufferLength, userMFAData **result);

// Destructors. Without a heap they wipe and free every piece; with one they
// free nothing of it. The object is then cleared, freed unless inHeap, and
// the heap is released when ownsHeap. All accept null.
void kfactor_userMFAData_destroy(userMFAData *data);
void kfactor_factorData_destroy(factorData *factor);
void policyData_destroy(policyData *policy);
// Frees a list of checked-allocation tags from first on.
void factorTagList_destroy(factorTag *first);

// A deep copy of factor in checked allocations: tags, name, date, activeFlag
// and numTags; stateFlag, capabilityBits and the heap fields are 0. A null
// factor gives a null copy. Returns 0 and the copy in *copy (release it with
// kfactor_factorData_destroy), 1200007 for a null copy address, 1200020 when
// out of memory.
int kfactor_factorData_copy(const factorData *factor, factorData **copy);

// Copies at most count tags from first on, in order, with names, values and
// offsets, in checked allocations, and hangs the copies on factorCopy, which
// must hold no tags yet and must not live in a heap. numTags of factorCopy is
// left to the caller. Returns 0, 1200007 for a factorCopy that is null, holds
// tags or lives in a heap, 1200020 when out of memory (factorCopy is then
// unchanged).
int factorTagList_copy(const factorTag *first, uint32_t count, factorData *factorCopy);

// Checks the first numTags tag names of factor for duplicates. On the first
// name equal to an earlier one: *errorField = 32, *errorOffset = the earlier
// tag's nameOffset, "KVTR2310E Tag validation detected duplicate tag names"
// copied into message as strncpy would with messageLength, and 1200056.
// 1200013 when the list is shorter than numTags, 1200007 for a null factor,
// else 0.
int kfactor_factorData_prevalidate(const factorData *factor, int *errorField, uint32_t *errorOffset,
                                   char *message, int messageLength);

// 1 when a factor of data has a name equal to factorName in its first 21
// characters, else 0 (also for null arguments).
int userMFAData_hasFactor(const userMFAData *data, const char *factorName);

// Dumps the record to standard output for debugging.
void printUserMFAData(const userMFAData *data);

#ifdef __cplusplus
}
#endif

#endif
