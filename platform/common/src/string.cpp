// Formatted string allocation.
#include <cstdio>
#include <cstdlib>

#include "tarvex_string.h"

extern "C" {

char *tarvex_common_v_create_string(const char *format, va_list ap)
{
    if (format == nullptr)
        return nullptr;
    va_list sizing;
    va_copy(sizing, ap);
    int length = vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    if (length < 0)
        return nullptr;
    auto *text = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
    if (text == nullptr)
        return nullptr;
    vsnprintf(text, static_cast<size_t>(length) + 1, format, ap);
    return text;
}

char *tarvex_common_create_string(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    char *text = tarvex_common_v_create_string(format, ap);
    va_end(ap);
    return text;
}

} // extern "C"
