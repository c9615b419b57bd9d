#pragma once

#include "config/EnumRawValues.h"

#include <QString>

#include <exception>

namespace velnora {

class ConfigurationError : public std::exception
{
public:
    enum class Kind { editionRestricted, invalidBaseURL, missingModel, missingAPIKey };

    explicit ConfigurationError(Kind kind) : m_kind(kind) {}

    Kind kind() const { return m_kind; }
    QString description() const;
    const char* what() const noexcept override;

    friend bool operator==(const ConfigurationError& a, const ConfigurationError& b) { return a.m_kind == b.m_kind; }

private:
    Kind m_kind;
};

} // namespace velnora
