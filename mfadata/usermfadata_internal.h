// Owning pointers for the C++ code that builds model pieces, so that every
// early return releases what was built so far.
#ifndef MFA_MFADATA_USERMFADATA_INTERNAL_H
#define MFA_MFADATA_USERMFADATA_INTERNAL_H

#include <memory>

#include "mfadata/usermfadata.h"

namespace mfadata {

template <auto Destroy> struct Destroyer {
  template <typename T> void operator()(T *object) const { Destroy(object); }
};
// An object that is destroyed with Destroy unless it is released.
template <typename T, auto Destroy> using Owned = std::unique_ptr<T, Destroyer<Destroy>>;

using HeapPtr = Owned<ShortLivedHeap, SLHFree>;
using TagListPtr = Owned<factorTag, factorTagList_destroy>;
using FactorPtr = Owned<factorData, kfactor_factorData_destroy>;
using RecordPtr = Owned<userMFAData, kfactor_userMFAData_destroy>;

} // namespace mfadata

#endif
