// The rules every tool that commits LDAP factor data follows, so that an
// administrator never loses stored data unknowingly: a commit replaces only
// what was read whole, a commit that wrote no row is an error, each commit
// attempt leaves a record in the system log, and output that did not arrive
// is reported before the tool exits.
#ifndef MFA_CLI_COMMITGUARD_H
#define MFA_CLI_COMMITGUARD_H

#include "mfadata/dbctx.h"

#ifdef __cplusplus
extern "C" {
#endif

struct ldapuser;

// What became of one commit attempt.
typedef enum commitguard_outcome {
  COMMITGUARD_COMMITTED,
  COMMITGUARD_REFUSED_UNREAD,  // the stored data could not be read whole
  COMMITGUARD_REFUSED_NO_USER, // the write changed no row: the user is not defined
  COMMITGUARD_FAILED,          // a step failed with a status
} commitguard_outcome;

// Decides whether a commit may replace the user's stored factorName data
// after a read that ended with readStatus (the status of
// ldapuser_retrieveFromKORS). Returns 0 when it may: the data was read or
// there is none (69802), and the stored text holds nothing that a read
// leaves out. Otherwise returns the status to end with, having written
// nothing: readStatus after a failed read, 69803 when the stored text does
// not read whole (commitguard_readStored), 1200052 when it cannot be read
// now, 67020 when memory is short.
int commitguard_check(dbctx *context, const char *factorName, const char *userid, int readStatus);

// Reads the stored tag text of a user's factorName data by the rule a commit
// follows: only a text that makes the record whole may be replaced. Returns
// 0 and a record in *record (the caller destroys it with ldapuser_destroy;
// an empty text or one without tags gives a record holding only the user
// ID); 69803 when the text is not a JSON object of string values or holds
// an unknown or repeated tag; 67020 when memory is short; 67007 for a
// missing argument. *record is untouched on failure.
int commitguard_readStored(const char *factorName, const char *userid, const char *text,
                           struct ldapuser **record);

// Prints to standard error, after flushing standard output so that the two
// streams keep the order in which the lines were written.
void commitguard_printError(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The refusal lines: KVTR2407E after a refusal by commitguard_check (status
// is what it returned), KVTR2408E when the write changed no row.
void commitguard_printUnread(const char *factorName, const char *userid, int status);
void commitguard_printUndefinedUser(const char *userid);

// Records a commit attempt in the system log (facility authpriv, under
// identity): the invoking OS user, the MFA user ID, the names of the fields
// given (given holds DN, SEARCHVAL, SEARCHVAL2 and SEARCHVAL3, null when not
// given; their values are never logged), the outcome and, unless committed,
// the status. A log that cannot be reached is ignored.
void commitguard_audit(const char *identity, const char *factorName, const char *userid,
                       const char *const given[4], commitguard_outcome outcome, int status);

// The tool's last step: flushes standard output and checks that all of it
// was written. Returns status when it was; otherwise prints KVTR2409E with
// the reason and summary (what became of the run, such as "nothing was
// committed") to standard error and returns status, or 74 (EX_IOERR) when
// status is 0. Callers ignore SIGPIPE so that a reader that went away is
// reported here instead of ending the process part-way.
int commitguard_finishOutput(int status, const char *summary);

#ifdef __cplusplus
}
#endif

#endif
