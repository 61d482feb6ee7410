#include <zel/Path.h>

#include <ostream>

namespace zel {

Path::iterator& Path::iterator::operator++() noexcept {
    const size_t separator = m_rest.find(Separator);
    m_end = separator == std::string_view::npos;
    m_rest = m_end ? std::string_view() : m_rest.substr(separator + 1);
    return *this;
}

void Path::init(std::string_view text) {
    if (!text.empty() && text.front() == '@')
        text.remove_prefix(1);
    m_text.assign(text);
}

Name Path::root() const {
    return m_text.substr(0, m_text.find(Separator));
}

Path Path::tail() const {
    Path result;
    const size_t separator = m_text.find(Separator);
    if (separator != std::string::npos)
        result.m_text = m_text.substr(separator + 1);
    return result;
}

Name Path::back() const {
    const size_t separator = m_text.rfind(Separator);
    return m_text.substr(separator == std::string::npos ? 0 : separator + 1);
}

Path Path::base() const {
    Path result;
    const size_t separator = m_text.rfind(Separator);
    if (separator != std::string::npos)
        result.m_text = m_text.substr(0, separator);
    return result;
}

bool Path::contains(const Name& name) const {
    for (iterator part = begin(); part != end(); ++part)
        if (part.part() == name.c_str())
            return true;
    return false;
}

bool Path::contains(const Path& path) const {
    if (path.empty())
        return true;
    const std::string here = Separator + static_cast<const std::string&>(m_text) + Separator;
    return here.find(Separator + static_cast<const std::string&>(path.m_text) + Separator) !=
           std::string::npos;
}

Path& Path::operator+=(const Path& other) {
    if (!empty() && !other.empty())
        m_text += Separator;
    m_text += other.m_text;
    return *this;
}

std::ostream& operator<<(std::ostream& stream, const Path& path) {
    return stream << path.str();
}

} // namespace zel
