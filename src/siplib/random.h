// Random text from the system's random source, for tags, branches and client nonces.
#pragma once

/// 32 characters and the terminating NUL.
using SIPLIB_UTIL_RANDOM_STRING_T = char[33];

/// Fills `text` with 32 characters of [0-9a-z] and a NUL (over 165 bits, RFC 3261 19.3 asks for 32). Any thread. The
/// system's source does not fail once it is seeded; should it, the process stops rather than hand out a guessable tag.
void SIPLIB_UTIL_generateRandomString(SIPLIB_UTIL_RANDOM_STRING_T& text);
