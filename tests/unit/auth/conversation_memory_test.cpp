// The memory of a conversation: what becomes of it where there is no more, and where the
// conversation fails.
#include <gtest/gtest.h>
#include <security/pam_appl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "auth/pam_conversation.h"
#include "support/captured_output.h"

namespace {

// An answer that was copied, and how it stood when it was freed.
struct Copy {
    const char* memory;
    std::size_t length;
    bool freed = false;
    bool wiped = false;
};

// The heap as a conversation sees it.
struct HeapScript {
    bool arrayFails = false;
    int copiesLeft = 1000;
    void* array = nullptr;
    bool arrayFreed = false;
    std::vector<Copy> copies;
};
HeapScript* heapScript = nullptr;

}  // namespace

// The names are the linker's.
extern "C" {
void* __real_calloc(std::size_t count, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* memory);

void* __wrap_calloc(std::size_t count, std::size_t size) {
    if (!heapScript) {
        return __real_calloc(count, size);
    }
    heapScript->array = heapScript->arrayFails ? nullptr : __real_calloc(count, size);
    return heapScript->array;
}

char* __wrap_strdup(const char* text) {
    if (!heapScript) {
        return __real_strdup(text);
    }
    if (heapScript->copiesLeft-- == 0) {
        return nullptr;
    }
    char* copy = __real_strdup(text);
    heapScript->copies.push_back({copy, std::strlen(text)});
    return copy;
}

void __wrap_free(void* memory) {
    if (heapScript && memory) {
        heapScript->arrayFreed = heapScript->arrayFreed || memory == heapScript->array;
        for (Copy& copy : heapScript->copies) {
            if (copy.memory == memory && !copy.freed) {
                copy.freed = true;
                copy.wiped = std::all_of(copy.memory, copy.memory + copy.length,
                                         [](char byte) { return byte == '\0'; });
            }
        }
    }
    __real_free(memory);
}
}

namespace session_service {
namespace {

class ConversationMemory : public testing::Test {
  protected:
    // Holds the conversation on this heap. Returns what it logged.
    std::string converse(const std::vector<pam_message>& messages) {
        std::vector<const pam_message*> pointers;
        for (const pam_message& message : messages) {
            pointers.push_back(&message);
        }
        return standardErrorOf([&] {
            heapScript = &heap;
            status = pamConversation(static_cast<int>(messages.size()), pointers.data(), &responses,
                                     password.data());
            heapScript = nullptr;
        });
    }
    void expectNothingKept(std::size_t copies) {
        EXPECT_EQ(responses, nullptr);
        EXPECT_TRUE(heap.arrayFreed);
        ASSERT_EQ(heap.copies.size(), copies);
        for (const Copy& copy : heap.copies) {
            EXPECT_TRUE(copy.freed);
            EXPECT_TRUE(copy.wiped);
        }
    }

    const pam_message question{PAM_PROMPT_ECHO_OFF, "Password: "};
    std::string password = "correct horse";
    HeapScript heap;
    pam_response unwritten{};
    pam_response* responses = &unwritten;
    int status = -1;
};

TEST_F(ConversationMemory, WithoutRoomForTheAnswersIsToldToPam) {
    heap.arrayFails = true;
    EXPECT_EQ(converse({question, question}),
              "[Error]: Failed to calloc memory to response buffer.\n");
    EXPECT_EQ(status, PAM_BUF_ERR);
    EXPECT_EQ(responses, nullptr);
    EXPECT_TRUE(heap.copies.empty());
}

TEST_F(ConversationMemory, WithoutRoomForAnAnswerKeepsNoneOfThem) {
    for (const int answers : {0, 1, 2}) {
        heap = {};
        heap.copiesLeft = answers;
        responses = &unwritten;
        EXPECT_EQ(converse({question, {PAM_TEXT_INFO, ""}, question, question}), "");
        EXPECT_EQ(status, PAM_CONV_ERR) << answers;
        expectNothingKept(static_cast<std::size_t>(answers));
    }
}

TEST_F(ConversationMemory, OfAConversationThatFailsIsFreedAnswerByAnswer) {
    EXPECT_EQ(converse({question, question, {PAM_PROMPT_ECHO_OFF, "PIN: "}, question}), "");
    EXPECT_EQ(status, PAM_CONV_ERR);
    expectNothingKept(2);
}

TEST_F(ConversationMemory, GoesToPamWhenAllIsAnswered) {
    EXPECT_EQ(converse({question, question}), "");
    EXPECT_EQ(status, PAM_SUCCESS);
    EXPECT_EQ(static_cast<void*>(responses), heap.array);
    EXPECT_FALSE(heap.arrayFreed);
    ASSERT_EQ(heap.copies.size(), 2U);
    for (std::size_t i = 0; i < heap.copies.size(); ++i) {
        EXPECT_FALSE(heap.copies[i].freed);
        EXPECT_EQ(responses[i].resp, heap.copies[i].memory);
        EXPECT_STREQ(responses[i].resp, "correct horse");
        EXPECT_EQ(responses[i].resp_retcode, 0);
        std::free(responses[i].resp);
    }
    std::free(responses);
}

}  // namespace
}  // namespace session_service
