#pragma once

#include <QString>

namespace velnora {

class SelectionReadError
{
public:
    enum class Case {
        accessibilityPermissionRequired,
        secureField,
        noSelection,
        clipboardUnavailable,
        selectionTooLong,
    };

    explicit SelectionReadError(Case errorCase) : m_case(errorCase) {}

    Case errorCase() const { return m_case; }
    QString description() const;

    friend bool operator==(const SelectionReadError&, const SelectionReadError&) = default;

private:
    Case m_case;
};

} // namespace velnora
