// os_scope.h: run something when a function is left, on whichever way.
#pragma once

#include <utility>

template <class Action>
class ScopeGuard
{
public:
    explicit ScopeGuard(Action a_action) : m_action(std::move(a_action)) {}
    ~ScopeGuard()
    {
        if (m_blArmed)
            m_action();
    }
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

    void Dismiss() { m_blArmed = false; }

private:
    Action m_action;
    bool m_blArmed = true;
};
