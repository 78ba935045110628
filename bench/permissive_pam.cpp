#include "bench/permissive_pam.h"

namespace bench {

namespace {

constexpr const char* pamModule = "/usr/local/lib/security/pam_test.so";

}  // namespace

void permitAllLogins(testbed::Controller& controller, const std::string& more) {
    controller.install(BENCH_PAM_MODULE, pamModule);
    const std::string module = std::string(" required ") + pamModule + " env=PRIVILEGES=511 ";
    controller.writeFile(testbed::pamServiceFile,
                         "auth" + module + "\naccount" + module + more + "\n");
}

void keepAllAuditEntries(testbed::StoreClient& store) {
    store.hset(testbed::auditEntriesUri, {{"&&MaxEntries", "1000000000"}});
}

}  // namespace bench
