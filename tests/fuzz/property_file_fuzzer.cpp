// The file of the persistent properties: what a load sends to the store, and what a save makes
// of the file.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "service/persistent_properties.h"
#include "support/captured_stream.h"
#include "support/fake_files.h"
#include "support/fake_store.h"
#include "support/input.h"
#include "support/log_lines.h"
#include "support/require.h"

namespace session_service {
namespace {

struct Entry {
    std::string name;
    std::string value;
};

std::vector<Entry> entriesOf(const std::string& text) {
    std::vector<Entry> entries;
    for (const std::string& line : linesOf(text)) {
        const std::string entry = upToNull(line);
        const std::size_t separator = entry.find('=');
        if (separator < entry.size() - 1 && !entry.starts_with('#')) {
            entries.push_back({entry.substr(0, separator), entry.substr(separator + 1)});
        }
    }
    return entries;
}

// The beginning of the text, with no more entries than the fake store has replies.
std::string withFewEntries(const std::string& text) {
    constexpr int maxEntries = 64;
    std::size_t end = text.find('=');
    for (int i = 0; i < maxEntries && end != std::string::npos; ++i) {
        end = text.find('=', end + 1);
    }
    return text.substr(0, end);
}

Command commandFor(const Entry& entry) {
    Command command{"HSET", "/redfish/v1/SessionService"};
    for (const std::string& text : {entry.name, entry.value}) {
        std::string word;
        for (const char character : text + ' ') {
            if (character != ' ') {
                word += character;
            } else if (!word.empty()) {
                command.push_back(std::move(word));
                word.clear();
            }
        }
    }
    return command;
}

// The reply that a letter stands for.
std::string replyFor(char letter) {
    switch (letter) {
        case 'e':
            return resp::error("ERR refused");
        case 's':
            return resp::status("OK");
        case 'n':
            return resp::nil();
        case 'a':
            return resp::array({resp::integer(1)});
        default:
            return resp::integer(1);
    }
}

// `letters` choose the replies; commands after them are answered with an integer. At an 'x' the
// connection is lost.
void checkLoad(const std::string& text, std::string letters) {
    const std::vector<Entry> entries = entriesOf(text);
    letters.resize(entries.size(), 'i');
    const std::size_t answered = std::min(letters.find('x'), entries.size());
    Replies replies;
    Commands commands;
    std::string lines;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i <= answered) {
            commands.push_back(commandFor(entries[i]));
        }
        if (i < answered) {
            replies.push_back(replyFor(letters[i]));
        }
        if (i >= answered || replies.back().front() != ':') {
            lines += debugLine("Failed to set persistent property " + entries[i].name + '.');
        }
    }

    const FakeConnection store(replies);
    const CapturedStream log(stderr);
    loadPersistentProperties(store.get());
    require(store.takeCommands() == commands, "an entry is one command, until the store is lost");
    require(log.written() == lines, "an entry that the store does not take makes one line");
}

std::string saved(MemoryFile& file, const FieldMap& properties) {
    const CapturedStream log(stderr);
    savePersistentProperties(properties);
    require(log.written().empty(), "a save logs nothing");
    return file.read();
}

std::string expectedSave(const std::string& text, const FieldMap& properties) {
    std::string expected;
    for (std::string line : linesOf(text)) {
        for (const auto& [name, value] : properties) {
            if (std::search(line.begin(), line.end(), name.begin(), name.end()) != line.end() ||
                name.empty()) {
                line = name + '=' + value.substr(0, value.find('\n'));
                break;
            }
        }
        expected += line + '\n';
    }
    return expected;
}

void checkSave(MemoryFile& file, const std::string& text, const std::string& timeout,
               const FieldMap& others) {
    FieldMap properties{{"SessionTimeout", timeout}};
    const std::string once = saved(file, properties);
    require(once == expectedSave(text, properties),
            "the lines that mention the property give its value, the others stay");
    require(saved(file, properties) == once, "saving again changes nothing");
    require(saved(file, {}) == once, "saving nothing changes nothing");

    file.write(text);
    properties.insert(others.begin(), others.end());
    require(saved(file, properties) == expectedSave(text, properties),
            "the first property that a line mentions replaces it");
}

}  // namespace
}  // namespace session_service

// The sections: the letters of the replies, the file, the new timeout; names and values of
// further properties in turn.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    static MemoryFile& file = fakeFiles()[propertyFile];
    openLog();
    InputSections sections(data, size);
    const std::string letters = sections.next();
    const std::string text = sections.next();
    const std::string timeout = sections.nextText();
    FieldMap others;
    while (sections.hasMore()) {
        const std::string name = sections.nextText();
        others[name] = sections.nextText();
    }

    const std::string loaded = withFewEntries(text);
    file.write(loaded);
    checkLoad(loaded, letters);
    file.write(text);
    checkSave(file, text, timeout, others);
    return 0;
}
