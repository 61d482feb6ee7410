#pragma once

#include <zel/Logger.h>
#include <zel/Notify.h>

#include <ostream>

/// @file
/// The logging statements. The text is streamed and gets a line end:
///
///     ZEL_LOG_INFO("loaded " << count << " entities");

/// A message of a level; see Notify for what becomes of it.
#define ZEL_LOG(level, ...)                                                                                  \
    do {                                                                                                     \
        ::zel::Logger::instance();                                                                           \
        ::zel::Notify* const zelLogNotify = ::zel::Notify::instance();                                       \
        zelLogNotify->getThreadStringStream()                                                                \
            << zelLogNotify->setDebugStrings(level, "", -1, "") << __VA_ARGS__ << std::endl                  \
            << zelLogNotify->end();                                                                          \
    } while (false)

#define ZEL_LOG_DEBUG(...) ZEL_LOG(::zel::Notify::Debug, __VA_ARGS__)
#define ZEL_LOG_INFO(...) ZEL_LOG(::zel::Notify::Info, __VA_ARGS__)
#define ZEL_LOG_WARNING(...) ZEL_LOG(::zel::Notify::Warning, __VA_ARGS__)
/// Throws std::runtime_error with the text and its line end, unless that is switched off.
#define ZEL_LOG_ERROR(...) ZEL_LOG(::zel::Notify::Error, __VA_ARGS__)
