#include "frame/workers.h"

#include "frame/logger.h"

namespace session_service {
namespace {

int workerCount = 0;

}  // namespace

bool start(Worker& worker, WorkerContext& context) {
    if (pthread_create(&worker.thread, nullptr, worker.body, &context) != 0) {
        return false;
    }
    ++workerCount;
    return true;
}

void join(const Worker& worker) {
    if (pthread_join(worker.thread, nullptr) != 0) {
        logger->error("%s", worker.joinFailureText);
    }
    --workerCount;
}

bool workersExist() {
    return workerCount > 0;
}

}  // namespace session_service
