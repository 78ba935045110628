// Request bodies as the front end stores them, turned into properties.
//
// A plain property is a field of the body hash. A property whose value is structured lies
// elsewhere in the store; the body hash then holds a field "TOKEN NAME SOURCE" (the tokens
// are "&&Object", "&&Array" and "&&ObjectRef"), whose value is not used.
#pragma once

#include <string>
#include <vector>

#include "store/commands.h"

namespace session_service {

// Replaces the body's fields by its properties: plain fields as they are, token fields by
// their property name and JSON text, in the order of the fields' names; a later one wins.
// A token field that cannot be converted is dropped (and logged as an error when its form
// or its token is wrong).
void convertBody(redisContext* connection, FieldMap& body);

// Converts one token field. True with `property` and `json` set; false when it cannot, with an
// error line for a wrong form or token.
bool convertTokenField(redisContext* connection, const std::string& fieldName,
                       std::string& property, std::string& json);

// The pieces between separators, empty ones included; a text without one is one piece.
std::vector<std::string> splitWords(const std::string& text, char separator);

}  // namespace session_service
