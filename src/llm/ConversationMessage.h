#pragma once

#include "config/EnumRawValues.h"

#include <QList>
#include <QString>

namespace velnora {

// One turn of an explanation conversation.
struct ConversationMessage
{
    enum class Role { user, assistant };

    Role role = Role::user;
    QString content;

    static ConversationMessage user(QString text) { return {Role::user, std::move(text)}; }
    static ConversationMessage assistant(QString text) { return {Role::assistant, std::move(text)}; }

    friend bool operator==(const ConversationMessage&, const ConversationMessage&) = default;
};

template <> struct EnumRawValues<ConversationMessage::Role>
{
    static constexpr std::array cases{
        std::pair{ConversationMessage::Role::user, "user"},
        std::pair{ConversationMessage::Role::assistant, "assistant"},
    };
};

} // namespace velnora
