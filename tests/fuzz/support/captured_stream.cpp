#include "support/captured_stream.h"

#include <cstdlib>

#include "support/require.h"

namespace session_service {
CapturedStream::CapturedStream(std::FILE*& captured) : stream(captured), original(captured) {
    stream = open_memstream(&text, &size);
    require(stream, "there is memory for what is written");
}

CapturedStream::~CapturedStream() {
    std::fclose(stream);
    std::free(text);
    stream = original;
}

std::string CapturedStream::written() const {
    std::fflush(stream);
    return {text, size};
}

}  // namespace session_service
