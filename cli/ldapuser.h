// The LDAP factor record: a user's bind DN, up to three search values and the
// LASTSEARCH counter of the factor "QMXLDAP1", converted to and from the factor
// data of the factor-data service, plus the field description a user interface
// shows for the factor and the check of what such an interface sends back.
#ifndef MFA_CLI_LDAPUSER_H
#define MFA_CLI_LDAPUSER_H

#include <stdint.h>

#include "base/json.h"
#include "mfadata/dbctx.h"
#include "mfadata/usermfadata.h"

#ifdef __cplusplus
extern "C" {
#endif

// Status codes of this module.
#define LDAPUSER_MISSING_ARGUMENT 67007
#define LDAPUSER_OUT_OF_MEMORY 67020
#define LDAPUSER_WRONG_FACTOR 67050
#define LDAPUSER_NO_TAGS 67051
#define LDAPUSER_TAG_WITHOUT_NAME 67052
#define LDAPUSER_UNKNOWN_TAG 67053
#define LDAPUSER_VALUE_TOO_LONG 67054
#define LDAPUSER_NO_FACTOR 69802
#define LDAPUSER_BAD_FACTOR_DATA 69803
#define LDAPUSER_DUPLICATE_TAG 69804
#define LDAPUSER_CONVERSION_ARGUMENT 1200007
#define LDAPUSER_WRITER_OUT_OF_MEMORY 1200020
#define LDAPUSER_READ_FAILED 1200052

// Longest value a field description allows and validation accepts.
#define LDAPUSER_MAX_VALUE_LENGTH 255

// One user's LDAP factor data. Every string is owned by the record and may be
// absent (null).
typedef struct ldapuser {
  char *userid;
  char *DN;
  char *SEARCHVAL;
  char *SEARCHVAL2;
  char *SEARCHVAL3;
  uint32_t lastSearch;
} ldapuser;

// Reads the user's factor data and turns the factor named factorName into a
// record. Returns 0 and stores a record that the caller releases with
// ldapuser_destroy (a factor without tags gives a record holding only the user
// ID); 1200052 when the data cannot be read, 69802 when the user has no such
// factor, 69803 when its tags do not make a record, 67007 for a null result
// address. Prints one time-stamped
// line when reading fails.
int ldapuser_retrieveFromKORS(dbctx *context, const char *factorName, const char *userid,
                              ldapuser **result);

// Builds a record from one factor's tags. Returns 0, or 67051 for a factor
// without tags, and stores the record (the caller destroys it). Otherwise
// nothing is stored in *result: 67007 for a missing argument, 67050 when the
// factor is not "QMXLDAP1", 67020 when out of memory, 67052 for a tag without
// a name, and 67053 (unknown tag) or 69804 (a tag given twice), both of which
// also store the tag's nameOffset in *badOffset.
int ldapuser_createFromFactorData(const char *userid, factorData *data, ldapuser **result,
                                  uint32_t *badOffset);

// Wipes and releases the record and its strings. Accepts null.
void ldapuser_destroy(ldapuser *user);

// Writes the record as the user's factorName data, marked current when
// setCurrent is non-zero. Returns the status of the conversion or of the
// write; a failed write prints one time-stamped line. gavrc, korsrc and
// korsrsn are accepted for the caller's error report and not written.
int ldapuser_commitToKORS(dbctx *context, const char *factorName, const char *userid,
                          ldapuser *user, int setCurrent, int *gavrc, int *korsrc, int *korsrsn);

// ldapuser_commitToKORS that also stores in *rowsWritten, on success, how
// many rows the write changed: 0 when the user or the factor is not defined.
// A null rowsWritten makes the write fail with 80106.
int ldapuser_commitToKORS2(dbctx *context, const char *factorName, const char *userid,
                           ldapuser *user, int setCurrent, uint32_t *rowsWritten);

// Builds factor data from the record: tags DN, SEARCHVAL, SEARCHVAL2 and
// SEARCHVAL3 for the fields present, then LASTSEARCH always. Returns 0 and
// stores factor data that the caller releases with kfactor_factorData_destroy;
// 1200007 for a missing argument, 67050 for another factor, 67020 when out of
// memory.
int ldapuser_convertToFactorData(const char *factorName, const char *userid, ldapuser *user,
                                 int setCurrent, factorData **result);

// The field description of the factor for a user interface: the "fields"
// array with the user's current values (none when they cannot be read).
// Returns 0 and stores a new string (release with freeString) and its length;
// 1200020 when out of memory, 1200007 for a missing argument.
int ldapuser_createTagsFieldsJson(dbctx *context, const char *factorName, const char *userid,
                                  char **json, int *length);

// Checks the fields a user interface sent back and turns them into the stored
// tag shape: a JSON object of tag name to string value. Fields whose value is
// not a string are left out. Returns 0 and stores a new string (release with
// freeString) and its length; 67053 for an unknown or missing field name,
// 67054 for a value longer than 255 bytes, 1200007 for a missing argument,
// 1200020 when out of memory. The first argument is not used.
int ldapuser_validateTagsFieldsJson(void *unused, JsonArray *fields, char **json, int *length);

#ifdef __cplusplus
}
#endif

#endif
