// os_scope.h: runs an action when a scope is left, by return or by exception.
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
