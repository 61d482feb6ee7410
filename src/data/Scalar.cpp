#include <zelData/Scalar.h>
#include <zelData/Value.h>

namespace zelData {

void AbstractScalar::bind(Value* value) {
    m_value = value;
    m_ptr = nullptr;
    sync();
}

void AbstractScalar::sync() {
    if (m_value != nullptr)
        m_ptr = m_value->getData();
}

} // namespace zelData
