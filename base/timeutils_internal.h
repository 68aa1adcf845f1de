// Internal hooks of the time utilities, for tests only.
#ifndef MFA_BASE_TIMEUTILS_INTERNAL_H
#define MFA_BASE_TIMEUTILS_INTERNAL_H

#ifdef __cplusplus
extern "C" {
#endif

// Forgets the process's zone offset so that the next use computes it again
// under the current TZ.
void timeZoneReset(void);

#ifdef __cplusplus
}
#endif

#endif
