// Calls the JSON generation library as the daemon does, inside the private root:
//
//   json_probe OUTPUT {object|array|reference SOURCE}...
//
// Writes the result of each call to the file OUTPUT, a zero byte after each: "text " and the
// text, or "failure".
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/json_generation.h"
#include "store/commands.h"

namespace {

struct Free {
    void operator()(char* text) const noexcept { std::free(text); }
};

char* convert(redisContext* connection, const char* operation, const char* source) {
    if (std::strcmp(operation, "object") == 0) {
        return convertRedisDataToJsonString(source);
    }
    if (std::strcmp(operation, "array") == 0) {
        return convertArrayDataToJsonString(connection, source);
    }
    return convertObjectRefDataToJsonString(nullptr, source);
}

}  // namespace

int main(int argc, char** argv) {
    std::FILE* output = argc > 1 ? std::fopen(argv[1], "we") : nullptr;
    const session_service::ConnectionPtr connection = session_service::store::connect();
    if (!output || !connection) {
        return EXIT_FAILURE;
    }
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::unique_ptr<char, Free> text(convert(connection.get(), argv[i], argv[i + 1]));
        std::fprintf(output, "%s%s%c", text ? "text " : "failure", text ? text.get() : "", 0);
    }
    return std::fclose(output) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
