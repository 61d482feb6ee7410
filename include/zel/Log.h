#pragma once

#include <zel/Logger.h>
#include <zel/Notify.h>

#include <ostream>
#include <sstream>

/// @file
/// The logging statements. The text is streamed and gets a line end:
///
///     ZEL_LOG_INFO("loaded " << count << " entities");

/// A message of a level; see Notify for what becomes of it. The text is composed first, in a stream of its
/// own: what is streamed may log itself, change the stream's format or throw, and no other message feels it.
#define ZEL_LOG(level, ...)                                                                                  \
    do {                                                                                                     \
        ::zel::Logger::instance();                                                                           \
        ::std::ostringstream zelLogText;                                                                     \
        zelLogText << __VA_ARGS__ << std::endl;                                                              \
        ::zel::Notify::instance()->send(level, "", -1, "", zelLogText.str());                                \
    } while (false)

#define ZEL_LOG_DEBUG(...) ZEL_LOG(::zel::Notify::Debug, __VA_ARGS__)
#define ZEL_LOG_INFO(...) ZEL_LOG(::zel::Notify::Info, __VA_ARGS__)
#define ZEL_LOG_WARNING(...) ZEL_LOG(::zel::Notify::Warning, __VA_ARGS__)
/// Throws std::runtime_error with the text and its line end, unless that is switched off.
#define ZEL_LOG_ERROR(...) ZEL_LOG(::zel::Notify::Error, __VA_ARGS__)
