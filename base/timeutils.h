// Time values and their conversions.
//
// Time is carried as a TOD value: an unsigned 64-bit count of microseconds
// since 1900-01-01 00:00:00 UTC, shifted left by 12 bits (one microsecond is
// 4096 units). A packed timestamp is 16 bytes of two-digit BCD, in UTC: bytes
// 0-2 hour, minute, second; 3-5 microseconds; 8-9 year; 10 month; 11 day; the
// rest zero. The process's offset from UTC is computed once, on first use.
#ifndef MFA_BASE_TIMEUTILS_H
#define MFA_BASE_TIMEUTILS_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

// Seconds from 1900-01-01 to 1970-01-01.
#define TOD_EPOCH_OFFSET 2208988800LL
#define TOD_UNITS_PER_MICROSECOND 4096ULL
#define PACKED_TIMESTAMP_SIZE 16

// The current time. On failure prints the error, stores 0 and returns -1.
int getSTCK(uint64_t *tod);
int getSTCKU(uint64_t *tod);

// The TOD value of a POSIX time, or 0 when it lies before 1900 or after the
// TOD range (late 2042).
uint64_t stckFromTimeval(const struct timeval *time);
// The POSIX time of a TOD value; returns 0.
int stckToTimeval(struct timeval *time, uint64_t tod);
// The POSIX seconds of a TOD value.
time_t stckToUnix(uint64_t tod);
// Both parts as 32-bit values; returns 0.
int stckToUnixSecondsAndMicros(uint64_t tod, uint32_t *seconds, uint32_t *microseconds);

// Shifts a UTC TOD value by the process's zone offset.
void convertTODToLocal(uint64_t *tod);

// Fills the packed timestamp from the UTC time of tod; returns 0.
int stckToTimestamp(uint64_t tod, unsigned char timestamp[PACKED_TIMESTAMP_SIZE]);
// The TOD value of a packed timestamp plus addend (TOD units). Returns 0, -1
// for a year before 1900, 1 when the fields are out of range or the time
// cannot be represented; *tod is written only on 0.
int timestampToSTCK(const unsigned char timestamp[PACKED_TIMESTAMP_SIZE], uint64_t *tod,
                    uint64_t addend);
// The TOD value of midnight UTC starting the given day; as timestampToSTCK.
int stckFromYYYYMMDD(int year, int month, int day, uint64_t *tod);
// A duration in TOD units; returns 0.
int elapsedTime(uint64_t *tod, int days, int hours, int minutes, int seconds);

// Day of the year (from 1) to day of month (byte 0) and month 1-12 (byte 1);
// years divisible by 4 are leap years. Returns 0, or -1 with both bytes 0 when
// the day is outside the year.
int getDayAndMonth(unsigned char dayAndMonth[2], int dayOfYear, int year);

// 16 bytes: the UTC time as 14 digits YYYYMMDDHHMMSS, then zeros.
void unixToTimestamp(time_t seconds, char buffer[PACKED_TIMESTAMP_SIZE]);

// Styles 0 and 1: the current local time as "YYYY-MM-DD-hh-mm-ss.uuuuuu";
// returns what snprintf returns. Other styles write nothing and return 0.
int snprintLocalTime(char *buffer, int size, int style);

// value modulo 10 * scale as BCD digit pairs at buffer + offset, most
// significant first: scale 10 writes one byte, 1000 two, 100000 three.
void writePackedDecimal(unsigned char *buffer, int offset, int scale, uint32_t value);
// Reads back what writePackedDecimal wrote with the same scale.
uint32_t extractFromPackedDecimal(const unsigned char *buffer, int offset, int scale);

#ifdef __cplusplus
}
#endif

#endif
