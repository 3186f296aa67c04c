#pragma once

#include <QString>
#include <string>
#include <string_view>

namespace kinbook {

// The core speaks UTF-8 std::string; Qt speaks QString.
inline QString qt(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

inline std::string utf8(const QString& text) {
    return text.toStdString();
}

} // namespace kinbook
