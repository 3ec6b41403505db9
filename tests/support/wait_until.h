/*
 * Bounded waiting for what another thread or process does.
 */
#pragma once

#include <chrono>
#include <thread>

/* Waits until the condition holds; false after the limit. */
template <typename Condition>
[[nodiscard]] bool WaitUntil(Condition i_objCondition,
                             std::chrono::milliseconds i_objLimit = std::chrono::seconds(20),
                             std::chrono::microseconds i_objPause = std::chrono::microseconds(200))
{
    const auto objEnd = std::chrono::steady_clock::now() + i_objLimit;
    while (!i_objCondition()) {
        if (std::chrono::steady_clock::now() > objEnd) {
            return false;
        }
        std::this_thread::sleep_for(i_objPause);
    }
    return true;
}
