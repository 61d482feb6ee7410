#include <zel/SyncTag.h>

namespace zel {

int32 SyncTag::wait() {
    return 1;
}

int32 SyncTag::getStatus() {
    return 1;
}

} // namespace zel
