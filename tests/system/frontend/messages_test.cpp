// The messages that clients read, against the standard's registry of the version that they name.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "support/web_test.h"

namespace testbed {
namespace {

using Json = nlohmann::json;

struct Entry {
    std::string text;
    std::size_t arguments;
    std::string severity;
    std::string resolution;
};

// What the front end and the session service use of version 1.12 of the base registry.
const std::map<std::string, Entry>& baseRegistry() {
    static const std::string correctValue =
        "Correct the value for the property in the request body and resubmit the request if the "
        "operation failed.";
    static const std::map<std::string, Entry> entries{
        {"AccessDenied",
         {"While attempting to establish a connection to '%1', the service denied access.", 1,
          "Critical",
          "Attempt to ensure that the URI is correct and that the service has the appropriate "
          "credentials."}},
        {"Created", {"The resource was created successfully.", 0, "OK", "None."}},
        {"EmptyJSON",
         {"The request body submitted contained an empty JSON object and the service is unable to "
          "process it.",
          0, "Warning", "Add properties in the JSON object and resubmit the request."}},
        {"GeneralError",
         {"A general error has occurred.  See Resolution for information on how to resolve the "
          "error, or @Message.ExtendedInfo if Resolution is not provided.",
          0, "Critical", "None."}},
        {"InsufficientPrivilege",
         {"There are insufficient privileges for the account or credentials associated with the "
          "current session to perform the requested operation.",
          0, "Critical",
          "Either abandon the operation or change the associated access rights and resubmit the "
          "request if the operation failed."}},
        {"InternalError",
         {"The request failed due to an internal service error.  The service is still operational.",
          0, "Critical",
          "Resubmit the request.  If the problem persists, consider resetting the service."}},
        {"MalformedJSON",
         {"The request body submitted was malformed JSON and could not be parsed by the receiving "
          "service.",
          0, "Critical", "Ensure that the request body is valid JSON and resubmit the request."}},
        {"NoOperation",
         {"The request body submitted contain no data to act upon and no changes to the resource "
          "took place.",
          0, "Warning", "Add properties in the JSON object and resubmit the request."}},
        {"NoValidSession",
         {"There is no valid session established with the implementation.", 0, "Critical",
          "Establish a session before attempting any operations."}},
        {"OperationFailed",
         {"An error occurred internal to the service as part of the overall request.  Partial "
          "results may have been returned.",
          0, "Warning",
          "Resubmit the request.  If the problem persists, consider resetting the service or "
          "provider."}},
        {"PasswordChangeRequired",
         {"The password provided for this account must be changed before access is granted.  PATCH "
          "the Password property for this account located at the target URI '%1' to complete this "
          "process.",
          1, "Critical",
          "Change the password for this account using a PATCH to the Password property at the URI "
          "provided."}},
        {"PreconditionFailed",
         {"The ETag supplied did not match the ETag required to change this resource.", 0,
          "Critical", "Try the operation again using the appropriate ETag."}},
        {"PropertyMissing",
         {"The property %1 is a required property and must be included in the request.", 1,
          "Warning",
          "Ensure that the property is in the request body and has a valid value and resubmit the "
          "request if the operation failed."}},
        {"PropertyNotWritable",
         {"The property %1 is a read only property and cannot be assigned a value.", 1, "Warning",
          "Remove the property from the request body and resubmit the request if the operation "
          "failed."}},
        {"PropertyUnknown",
         {"The property %1 is not in the list of valid properties for the resource.", 1, "Warning",
          "Remove the unknown property from the request body and resubmit the request if the "
          "operation failed."}},
        {"PropertyValueFormatError",
         {"The value '%1' for the property %2 is of a different format than the property can "
          "accept.",
          2, "Warning", correctValue}},
        {"PropertyValueOutOfRange",
         {"The value '%1' for the property %2 is not in the supported range of acceptable values.",
          2, "Warning", correctValue}},
        {"PropertyValueTypeError",
         {"The value '%1' for the property %2 is of a different type than the property can accept.",
          2, "Warning", correctValue}},
        {"QueryNotSupported",
         {"Querying is not supported by the implementation.", 0, "Warning",
          "Remove the query parameters and resubmit the request if the operation failed."}},
        {"ResourceMissingAtURI",
         {"The resource at the URI '%1' was not found.", 1, "Critical",
          "Place a valid resource at the URI or correct the URI and resubmit the request."}},
        {"ServiceTemporarilyUnavailable",
         {"The service is temporarily unavailable.  Retry in %1 seconds.", 1, "Critical",
          "Wait for the indicated retry duration and retry the operation."}},
        {"SessionLimitExceeded",
         {"The session establishment failed due to the number of simultaneous sessions exceeding "
          "the limit of the implementation.",
          0, "Critical",
          "Reduce the number of other sessions before trying to establish the session or increase "
          "the limit of simultaneous sessions, if supported."}},
        {"StringValueTooLong",
         {"The string '%1' exceeds the length limit %2.", 2, "Warning",
          "Resubmit the request with an appropriate string length."}},
    };
    return entries;
}

const std::string basePrefix = "Base.1.12.";

std::string filledIn(std::string text, const Json& arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string place = "%" + std::to_string(i + 1);
        text.replace(text.find(place), place.size(), arguments.at(i).get<std::string>());
    }
    return text;
}

void expectAsRegistered(const Json& message) {
    const std::string id = message.at("MessageId");
    SCOPED_TRACE(id);
    ASSERT_EQ(id.rfind(basePrefix, 0), 0U);
    const auto found = baseRegistry().find(id.substr(basePrefix.size()));
    ASSERT_NE(found, baseRegistry().end());
    const Entry& entry = found->second;
    ASSERT_EQ(message.at("MessageArgs").size(), entry.arguments);
    EXPECT_EQ(message.at("Message"), filledIn(entry.text, message.at("MessageArgs")));
    EXPECT_EQ(message.at("MessageSeverity"), entry.severity);
    EXPECT_EQ(message.at("Severity"), entry.severity);
    EXPECT_EQ(message.at("Resolution"), entry.resolution);
}

// The identifiers of the base registry that the front end's sources name.
std::set<std::string> namedInSources(const std::string& folder) {
    std::set<std::string> names;
    const std::regex identifier(R"re("Base\.1\.12\.(\w+)")re");
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        std::stringstream text;
        text << std::ifstream(file.path()).rdbuf();
        const std::string source = text.str();
        for (std::sregex_iterator match(source.begin(), source.end(), identifier), end;
             match != end; ++match) {
            names.insert((*match)[1]);
        }
        EXPECT_EQ(source.find("\"Base.1.12.\""), std::string::npos) << file.path();
    }
    return names;
}

class WebMessages : public WebTest {
  protected:
    // The messages of an error answer.
    Json errorsOf(const HttpResponse& answer) {
        return answer.json().at("error").at("@Message.ExtendedInfo");
    }
    void collect(const HttpResponse& answer) {
        for (const Json& message : errorsOf(answer)) {
            expectAsRegistered(message);
            seen.insert(message.at("MessageId").get<std::string>());
        }
    }
    HttpResponse get(const std::string& path, const std::string& header) {
        return client().request({.path = path, .headers = {header}});
    }
    std::set<std::string> seen;
};

TEST_F(WebMessages, NameNothingThatIsNotInTheRegistry) {
    const std::set<std::string> named =
        namedInSources(controller.path("/usr/local/share/nginx/lua"));
    EXPECT_GT(named.size(), 15U);
    for (const std::string& name : named) {
        EXPECT_EQ(baseRegistry().count(name), 1U) << name;
    }
}

TEST_F(WebMessages, SayWhatTheRegistrySays) {
    expectWebErrorLine("nested too deeply");
    collect(client().get(serviceUri));  // NoValidSession
    collect(client().post(sessionsUri, R"({"UserName":5,"Password":"\u0000","Id":1,"Sort":1})"));
    collect(client().post(sessionsUri, R"({"UserName":"a"})"));
    collect(client().post(sessionsUri, "{"));
    collect(client().login(std::string(256, 'x'), "any"));
    collect(client().get("/redfish/v1?$top=1"));
    client().useToken(frontEnd().insertSession().token);
    collect(client().patch(serviceUri, "{}"));
    collect(client().patch(serviceUri, R"({"@odata.id":"x"})"));
    collect(client().patch(serviceUri, R"({"SessionTimeout":1})"));
    collect(client().get("/redfish/v1/Nowhere"));
    collect(get(serviceUri, "If-Match: \"x\""));
    store().hset("/redfish/v1/Chassis",
                 {{"@odata.id", "\"/redfish/v1/Chassis\""}, {"&&Object A circle", ""}});
    store().hset("circle", {{"&&Object A circle", ""}});
    collect(client().get("/redfish/v1/Chassis"));  // InternalError
    const InsertedSession bound = frontEnd().insertSession({.privilege = "1"});
    client().useToken(bound.token);
    store().hset(tokenKey(bound.token), {{"&&Origin", "https://pages.example"}});
    collect(get(serviceUri, "Origin: https://another.example"));
    collect(client().patch(serviceUri, R"({"SessionTimeout":600})"));
    while (store().llen(membersKey) < 8) {
        frontEnd().insertSession();
    }
    collect(newClient().login(reader.name, reader.password));
    EXPECT_EQ(seen.size(), 18U) << testing::PrintToString(seen);
}

TEST_F(WebMessages, OfAnExpiredPasswordSayWhatTheRegistrySays) {
    const HttpResponse login = client().login(expired.name, expired.password);
    ASSERT_EQ(login.status, 201);
    expectAsRegistered(login.json().at("@Message.ExtendedInfo").at(0));
    collect(client().get(serviceUri));
    EXPECT_EQ(seen, std::set<std::string>{"Base.1.12.PasswordChangeRequired"});
}

TEST_F(WebMessages, OfSeveralFaultsAreIntroducedAsTheStandardAsks) {
    const Json error = client().post(sessionsUri, "{}").json().at("error");
    EXPECT_EQ(error.at("code"), "Base.1.12.GeneralError");
    EXPECT_EQ(error.at("message"), baseRegistry().at("GeneralError").text);
}

TEST_F(WebMessages, OfAServiceThatIsAwaySayWhatTheRegistrySays) {
    expectExitStatus({.bySignal = true, .value = SIGKILL});
    controller.daemon().kill();
    collect(client().login(reader.name, reader.password));
    EXPECT_EQ(seen, std::set<std::string>{"Base.1.12.ServiceTemporarilyUnavailable"});
}

// What the base registry of this version has no message for.
TEST_F(WebMessages, ThatTheRegistryLacksAreOfAnother) {
    client().useToken(frontEnd().insertSession().token);
    const auto idOf = [this](const HttpResponse& answer) {
        return errorsOf(answer).at(0).at("MessageId").get<std::string>();
    };
    EXPECT_EQ(idOf(client().request({.method = "PUT", .path = serviceUri})),
              "ExtendedError.1.2.MethodNotAllowed");
    EXPECT_EQ(idOf(client().get("/redfish/v1/%ff")), "ExtendedError.1.2.MalformedRequest");
    EXPECT_EQ(idOf(client().patch(serviceUri, std::string(65537, ' '))),
              "ExtendedError.1.2.RequestTooLarge");
}

}  // namespace
}  // namespace testbed
