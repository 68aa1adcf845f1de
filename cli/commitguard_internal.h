// The pieces of the commit rules that the tools share in C++: quoting for
// log and console lines, and the audit record's frame.
#ifndef MFA_CLI_COMMITGUARD_INTERNAL_H
#define MFA_CLI_COMMITGUARD_INTERNAL_H

#include <string>
#include <string_view>

namespace commitguard {

// text between double quotes, such that it can end neither its field nor its
// line: quotes, backslashes and control characters are written as \xNN.
std::string quoted(std::string_view text);

// Records one commit attempt in the system log (facility authpriv, under
// identity, at notice when committed and warning otherwise): head, the
// invoking OS user, then tail. A log that cannot be reached is ignored.
void audit(const char *identity, bool committed, const std::string &head, const std::string &tail);

} // namespace commitguard

#endif
