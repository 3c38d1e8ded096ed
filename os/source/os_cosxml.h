// os_cosxml.h: extracts or replaces a field of an XML-like text by plain substring search.
#pragma once

#include "os_types.h"

// Copies the text between the first a_szOpenTag and the next a_szCloseTag. True when the element was found and fits
// a_sizetDestination (with terminator; 0: no limit); otherwise the destination is empty. a_blCdata strips <![CDATA[ and
// ]]> around the value. a_szDestination may be a_szSource itself: then the value is moved to the front of the buffer,
// CDATA is always unwrapped, and an empty or missing value empties the buffer and returns false.
bool OsXmlExtract(const char* a_szSource, const char* a_szOpenTag, const char* a_szCloseTag, char* a_szDestination,
                  size_t a_sizetDestination, bool a_blCdata);

// Finds the first element's text in place: returns its start in a_szSource, and its length in bytes. Null when absent.
const char* OsXmlFind(const char* a_szSource, const char* a_szOpenTag, const char* a_szCloseTag, bool a_blCdata,
                      size_t* a_psizetLength);

// The same for an element name of at most 60 characters without angle brackets; CDATA is unwrapped.
bool OsXmlExtractElement(const char* a_szSource, const char* a_szName, char* a_szDestination,
                         size_t a_sizetDestination);

// Replaces the text of the first such element; a CDATA section stays one. EOSSTS_SUCCESS; EOSSTS_NOSPACE when there is
// no such element; EOSSTS_FAIL (logged), with the text unchanged, when the result does not fit a_sizetText.
EOSSTS OsXmlReplaceElement(char* a_szText, size_t a_sizetText, const char* a_szName, const char* a_szValue);
