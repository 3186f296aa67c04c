#pragma once

#include <string>
#include <string_view>

namespace kinbook {

// A log line with parts that must not reach the platform log: text the user
// typed, such as a search. The app log file, which only the user reads, gets
// the whole line; the platform log gets each private part as "<private>".
//
//     log.info(LogMessage("search: ").privateText(query).publicText(fmt::format(" {} ms", ms)));
//
// Lines with nothing private are passed to KinLog as plain text instead.
class LogMessage {
public:
    LogMessage() = default;
    explicit LogMessage(std::string_view publicText) : m_text(publicText), m_redacted(publicText) {}

    // Appends text that both logs may show.
    LogMessage& publicText(std::string_view text) {
        m_text += text;
        m_redacted += text;
        return *this;
    }

    // Appends text that only the app log file shows.
    LogMessage& privateText(std::string_view text) {
        m_text += text;
        m_redacted += "<private>";
        return *this;
    }

    // The whole line, for the file.
    const std::string& text() const { return m_text; }

    // The line with private parts redacted, for the platform log.
    const std::string& redactedText() const { return m_redacted; }

    bool operator==(const LogMessage&) const = default;

private:
    std::string m_text;
    std::string m_redacted;
};

} // namespace kinbook
