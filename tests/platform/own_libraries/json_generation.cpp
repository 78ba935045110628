// A JSON generation library that knows empty resources only.
#include "platform/json_generation.h"

#include <cstring>

char* convertRedisDataToJsonString(const char* /*source*/) {
    return strdup("{}");
}

char* convertArrayDataToJsonString(redisContext* /*connection*/, const char* /*source*/) {
    return strdup("[]");
}

char* convertObjectRefDataToJsonString(redisContext* /*connection*/, const char* /*source*/) {
    return strdup("{}");
}
