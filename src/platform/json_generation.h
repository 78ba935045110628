// The JSON generation library: a platform interface. The default implementation here
// serves a controller that has no library of its own for it.
//
// It turns stored resources into JSON text. Each function returns a zero-terminated
// text from the C heap, to be released with free, or null on failure. Data nested
// deeper than 32 levels, or circular data, is a failure; so is a conversion that reads
// more than 1024 hashes and lists, a repeated one counted each time, or more than 4 MiB
// of text from them. Safe to call from several threads, each with a connection of its own.
#pragma once

struct redisContext;

// The hash named by `source`, read over a connection of its own, as an object. A plain
// field gives its value as JSON where it parses as JSON, as a JSON string otherwise; a
// field "&&Object NAME SOURCE", "&&Array NAME SOURCE" or "&&ObjectRef NAME SOURCE"
// gives NAME with what SOURCE converts to; other fields that begin with "&&" are
// internal and left out. A missing or empty hash is a failure.
char* convertRedisDataToJsonString(const char* source);

// The list named by `source` as an array. An element is JSON text, or "&&ObjectRef
// URI", "&&Object KEY" or "&&Array KEY"; anything else is a JSON string. A missing
// list is an empty array. The connection must not be null.
char* convertArrayDataToJsonString(redisContext* connection, const char* source);

// {"@odata.id": source}. Reads nothing; the connection may be null.
char* convertObjectRefDataToJsonString(redisContext* connection, const char* source);
