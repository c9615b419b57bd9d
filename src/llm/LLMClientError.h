#pragma once

#include <QString>
#include <exception>

namespace velnora {

// A failure of the model API client.
class LLMClientError : public std::exception
{
public:
    enum class Kind { api, http, invalidRequest, invalidAPIKey, cancelled, emptyResponse };

    static LLMClientError api(QString message) { return LLMClientError(Kind::api, 0, std::move(message)); }
    static LLMClientError http(int status, QString message)
    {
        return LLMClientError(Kind::http, status, std::move(message));
    }
    static LLMClientError invalidRequest() { return LLMClientError(Kind::invalidRequest, 0, {}); }
    // A key that cannot travel in a header; the message says which character (ApiKeyCheck).
    static LLMClientError invalidAPIKey(QString message)
    {
        return LLMClientError(Kind::invalidAPIKey, 0, std::move(message));
    }
    static LLMClientError cancelled() { return LLMClientError(Kind::cancelled, 0, {}); }
    static LLMClientError emptyResponse() { return LLMClientError(Kind::emptyResponse, 0, {}); }

    Kind kind() const { return m_kind; }
    int status() const { return m_status; }
    const QString& message() const { return m_message; }
    QString description() const;
    const char* what() const noexcept override { return "LLMClientError"; }

    friend bool operator==(const LLMClientError& a, const LLMClientError& b)
    {
        return a.m_kind == b.m_kind && a.m_status == b.m_status && a.m_message == b.m_message;
    }

private:
    LLMClientError(Kind kind, int status, QString message)
        : m_kind(kind), m_status(status), m_message(std::move(message))
    {}

    Kind m_kind;
    int m_status;
    QString m_message;
};

} // namespace velnora
