#pragma once

#include "llm/ConversationMessage.h"

#include <QList>

namespace velnora {

// The messages of one explanation session, oldest first.
struct ExplanationConversation
{
    QList<ConversationMessage> messages;

    bool isEmpty() const { return messages.isEmpty(); }
    void append(ConversationMessage message) { messages.append(std::move(message)); }

    // The first message of a session: depth instruction, then the material between tags.
    static QString firstMessage(const QString& depthInstruction, const QString& material);
    // A further selection added to a running session.
    static QString furtherSelectionMessage(const QString& depthInstruction, const QString& material);
};

} // namespace velnora
