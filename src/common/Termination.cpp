#include "Termination.h"

#include "internal/platform/Platform.h"

namespace kel {

void catchTerminationRequests() {
    platform::catchTerminationRequests();
}

void waitForTerminationRequest() {
    platform::catchTerminationRequests();
    platform::waitForTerminationRequest();
}

}  // namespace kel
