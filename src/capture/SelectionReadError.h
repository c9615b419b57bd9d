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
        // The synthetic copy was not tried because the clipboard could not be saved whole first.
        clipboardNotSaved,
    };

    explicit SelectionReadError(Case errorCase) : m_case(errorCase) {}

    Case errorCase() const { return m_case; }
    QString description() const;

    friend bool operator==(const SelectionReadError&, const SelectionReadError&) = default;

private:
    Case m_case;
};

} // namespace velnora
