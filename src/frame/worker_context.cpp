#include "frame/worker_context.h"

namespace session_service {

bool initialize(WorkerContext& context) {
    if (pthread_mutex_init(&context.stopMutex.handle, nullptr) != 0 ||
        pthread_mutex_init(&context.dataMutex.handle, nullptr) != 0) {
        return false;
    }
    pthread_cond_init(&context.dataReady, nullptr);
    return true;
}

}  // namespace session_service
