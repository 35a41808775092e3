#include "Store.h"

#include <Poco/AutoPtr.h>

#include "../process/NeverDestroyed.h"

namespace kel {

Poco::Util::JSONConfiguration& configStore() {
    using Store = Poco::Util::JSONConfiguration;
    // On the heap, since a host may share the ownership of what POCO counts the references of.
    static NeverDestroyed<Poco::AutoPtr<Store>> store(new Store);
    return **store;
}

}  // namespace kel
