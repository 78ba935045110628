#include "store/query.h"

#include <sys/socket.h>
#include <sys/time.h>

#include "store/reply.h"

namespace session_service::store {
namespace {

Answer toAnswer(const redisReply& reply) {
    Answer answer;
    switch (reply.type) {
        case REDIS_REPLY_ERROR:
            answer.kind = Answer::Kind::refused;
            break;
        case REDIS_REPLY_STRING:
        case REDIS_REPLY_STATUS:
            answer.kind = Answer::Kind::text;
            break;
        case REDIS_REPLY_INTEGER:
            answer.kind = Answer::Kind::integer;
            answer.integer = reply.integer;
            return answer;
        case REDIS_REPLY_ARRAY:
            answer.kind = Answer::Kind::list;
            answer.elements.reserve(reply.elements);
            for (std::size_t i = 0; i < reply.elements; ++i) {
                answer.elements.push_back(toAnswer(*reply.element[i]));
            }
            return answer;
        default:
            answer.kind = Answer::Kind::nil;
            return answer;
    }
    answer.text.assign(reply.str, reply.len);
    return answer;
}

}  // namespace

Answer ask(redisContext* connection, std::initializer_list<std::string_view> arguments) {
    const ReplyPtr reply = sendArguments(connection, arguments);
    return reply ? toAnswer(*reply) : Answer{};
}

std::map<std::string, std::string> fieldsOf(const Answer& answer) {
    std::map<std::string, std::string> fields;
    for (std::size_t i = 0; i + 1 < answer.elements.size(); i += 2) {
        fields[answer.elements[i].text] = answer.elements[i + 1].text;
    }
    return fields;
}

int descriptorOf(const redisContext* connection) {
    return connection->fd;
}

bool limitWaits(redisContext* connection, std::chrono::seconds limit) {
    // Not redisSetTimeout(): on a 32-bit machine the library's timeval may be smaller than ours.
    const timeval wait{.tv_sec = static_cast<time_t>(limit.count()), .tv_usec = 0};
    const auto limitOption = [&](int option) {
        return setsockopt(connection->fd, SOL_SOCKET, option, &wait, sizeof wait) == 0;
    };
    return limitOption(SO_RCVTIMEO) && limitOption(SO_SNDTIMEO);
}

}  // namespace session_service::store
