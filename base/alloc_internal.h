// Internal hooks of the allocation module, for tests only.
#ifndef MFA_BASE_ALLOC_INTERNAL_H
#define MFA_BASE_ALLOC_INTERNAL_H

#ifdef __cplusplus
extern "C" {
#endif

// Raises or lowers the trace level that gates the size diagnostics of
// safeMalloc, safeMalloc2 and safeMalloc31. Returns the previous level.
int mallocSetTraceLevel(int level);

#ifdef __cplusplus
}
#endif

#endif
