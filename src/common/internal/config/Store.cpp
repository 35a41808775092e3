#include "Store.h"

#include <Poco/AutoPtr.h>

#include "../process/NeverDestroyed.h"

namespace kel {

Poco::Util::JSONConfiguration& configStore() {
    using Store = Poco::Util::JSONConfiguration;
    // The store is on the heap, because POCO counts the references to it and a host may hold one.
    static NeverDestroyed<Poco::AutoPtr<Store>> store(new Store);
    return **store;
}

}  // namespace kel
