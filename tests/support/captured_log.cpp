#include "tests/support/captured_log.h"

#include <algorithm>

namespace corvalin::test {

std::ostream& operator<<(std::ostream& stream, const CapturedLine& line) {
    return stream << log::level_to_string(line.level) << " " << line.file << ":" << line.line << " \""
                  << line.text << "\"";
}

CapturedLog::CapturedLog() : CapturedLog(log::Logger::m_instance.m_level) {
}

CapturedLog::CapturedLog(log::Level threshold)
    : m_found_context(log::Logger::m_instance.m_context), m_found_close(log::Logger::m_instance.m_close),
      m_found_write(log::Logger::m_instance.m_write), m_found_level(log::Logger::m_instance.m_level) {
    log::LoggerImpl& logger = log::Logger::m_instance;
    logger.m_context = this;
    logger.m_close = nullptr;
    logger.m_write = &CapturedLog::write;
    logger.m_level = threshold;
}

CapturedLog::~CapturedLog() {
    log::LoggerImpl& logger = log::Logger::m_instance;
    logger.m_write = m_found_write;
    logger.m_close = m_found_close;
    logger.m_context = m_found_context;
    logger.m_level = m_found_level;
}

std::vector<CapturedLine> CapturedLog::lines() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_lines;
}

std::vector<CapturedLine> CapturedLog::lines(log::Level level) const {
    std::vector<CapturedLine> chosen = lines();
    std::erase_if(chosen, [level](const CapturedLine& line) { return line.level != level; });
    return chosen;
}

std::vector<std::string> CapturedLog::texts() const {
    std::vector<std::string> texts;
    for (CapturedLine& line : lines()) {
        texts.push_back(std::move(line.text));
    }
    return texts;
}

std::vector<std::string> CapturedLog::texts(log::Level level) const {
    std::vector<std::string> texts;
    for (CapturedLine& line : lines(level)) {
        texts.push_back(std::move(line.text));
    }
    return texts;
}

std::vector<std::string> CapturedLog::records() const {
    std::vector<std::string> records;
    for (const CapturedLine& line : lines()) {
        records.push_back(log::level_to_string(line.level) + (" " + line.file) + ": " + line.text);
    }
    return records;
}

std::size_t CapturedLog::count(log::Level level, const std::string& text) const {
    const std::vector<std::string> chosen = texts(level);
    return static_cast<std::size_t>(std::count(chosen.begin(), chosen.end(), text));
}

bool CapturedLog::wait_for(const std::string& text, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> guard(m_lock);
    return m_changed.wait_for(guard, limit, [this, &text] {
        return std::any_of(m_lines.begin(), m_lines.end(),
                           [&text](const CapturedLine& line) { return line.text == text; });
    });
}

void CapturedLog::clear() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_lines.clear();
}

void CapturedLog::write(void* context, const char* file, int line, const log::Message& message) {
    CapturedLog& capture = *static_cast<CapturedLog*>(context);
    {
        const std::lock_guard<std::mutex> guard(capture.m_lock);
        capture.m_lines.push_back({message.level(), file, line, message.text()});
    }
    capture.m_changed.notify_all();
}

} // namespace corvalin::test
