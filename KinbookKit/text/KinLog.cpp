#include "KinbookKit/text/KinLog.h"

#include "KinbookKit/text/AppLog.h"

#include <atomic>
#include <utility>

namespace kinbook {
namespace {

std::atomic<PlatformLog*> processPlatformLog{nullptr};

} // namespace

KinLog::KinLog(std::string category) : m_category(std::move(category)) {}

KinLog::KinLog(std::string category, AppLog& file) : m_category(std::move(category)), m_file(&file) {}

KinLog::KinLog(std::string category, AppLog& file, PlatformLog& platform)
    : m_category(std::move(category)), m_file(&file), m_platform(&platform) {}

void KinLog::info(std::string_view message) const noexcept {
    emit(LogLevel::info, message, message);
}

void KinLog::info(const LogMessage& message) const noexcept {
    emit(LogLevel::info, message.text(), message.redactedText());
}

void KinLog::error(std::string_view message) const noexcept {
    emit(LogLevel::error, message, message);
}

void KinLog::error(const LogMessage& message) const noexcept {
    emit(LogLevel::error, message.text(), message.redactedText());
}

void KinLog::setPlatformLog(PlatformLog* log) noexcept {
    processPlatformLog.store(log, std::memory_order_release);
}

void KinLog::emit(LogLevel level, std::string_view text, std::string_view redacted) const noexcept {
    // The platform copy comes first and does not depend on the file: a line
    // reaches the journal even when the file cannot be written.
    try {
        PlatformLog* platform =
            m_platform != nullptr ? m_platform : processPlatformLog.load(std::memory_order_acquire);
        if (platform != nullptr) {
            platform->write(level, m_category, redacted);
        }
    } catch (...) {
        // A platform log that throws loses its line, not the caller's work.
    }
    try {
        AppLog& file = m_file != nullptr ? *m_file : AppLog::shared();
        if (level == LogLevel::error) {
            file.write(m_category, std::string("ERROR ").append(text));
        } else {
            file.write(m_category, text);
        }
    } catch (...) {
        // Out of memory: the line is lost.
    }
}

} // namespace kinbook
