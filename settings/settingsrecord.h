// Status codes shared by the settings records (server, TOTP and YubiKey
// settings), each kept as a JSON object in the factor-wide settings of its
// pseudo-factor.
#ifndef MFA_SETTINGS_SETTINGSRECORD_H
#define MFA_SETTINGS_SETTINGSRECORD_H

// A missing record, text or address, or a negative length.
#define SETTINGS_MISSING_ARGUMENT 1200007
// The JSON text is longer than the caller's buffer; the needed length is
// returned with it.
#define SETTINGS_BUFFER_TOO_SMALL 1200010
// The JSON printer, a record or one of its strings could not be allocated.
#define SETTINGS_OUT_OF_MEMORY 1200020
// The factor-wide settings could not be read, or nothing is stored.
#define SETTINGS_NOT_READABLE 1200050

#endif
