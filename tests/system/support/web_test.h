// The fixture of all tests that reach the session service through the web front end.
//
// The rate of logins is not limited. Besides what SystemTest checks, a test fails when a request
// is left in the store; when the front end ended before the test did, or not as it should; when
// its error log holds a line of level error or above that the test did not expect, or lacks one
// that it did; and when one of its logs tells a password or a token. A failed test prints the
// logs.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "support/system_test.h"
#include "testbed/http_client.h"
#include "testbed/web_front_end.h"

namespace testbed {

class WebTest : public SystemTest {
  protected:
    explicit WebTest(const ControllerOptions& options = {});
    // Starts the store, the daemon and the front end.
    void SetUp() override;
    void TearDown() override;

    // Gives a value to a line of the front end's settings, as Lua text; for its next start.
    void changeSetting(const std::string& name, const std::string& value);
    // Replaces a text of the front end's limits, which has to be there; for its next start.
    void changeLimit(const std::string& text, const std::string& replacement);

    // Has the front end load its files again. Returns its first worker, which ends from then on.
    pid_t reload();

    // A line of the error log that contains the text has to be there, any number of times.
    void expectWebErrorLine(const std::string& text) { expectedWebErrors.push_back(text); }

    // The test's own client, made at first use.
    HttpClient& client();
    // Another one. Address and certificate are the front end's unless they are given.
    HttpClient newClient(HttpOptions options = {}) const;

    WebFrontEnd web{controller};

  private:
    void checkLeftovers();
    void waitUntilDaemonIsIdle();
    void waitForErrorLines();
    void checkErrorLog();
    void checkSecrets(const std::string& log) const;

    std::optional<HttpClient> httpClient;
    std::vector<std::string> expectedWebErrors;
};

// The identifiers of an error answer's messages.
Words messageIds(const HttpResponse& response);

}  // namespace testbed
