/*
 * The process's resident memory as Linux reports it, for the tests that
 * check a large transfer is streamed rather than held.
 */
#ifndef TARVEX_TEST_PEAK_MEMORY_H
#define TARVEX_TEST_PEAK_MEMORY_H

#include <fstream>
#include <string>

namespace tarvex_test {

/* Starts the peak (VmHWM) again at the present resident size; false when
 * the system does not allow it (then the peak is the process's). */
inline bool reset_peak()
{
    std::ofstream out("/proc/self/clear_refs");
    return static_cast<bool>(out << "5" << std::flush);
}

/* A size of /proc/self/status ("VmRSS", "VmHWM") in kB; -1 when absent. */
inline long status_kb(const std::string &field)
{
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field + ":", 0) == 0)
            return std::stol(line.substr(field.size() + 1));
    return -1;
}

} // namespace tarvex_test

#endif
