#pragma once

#include "config/EnumRawValues.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <optional>

namespace velnora {

enum class BridgeRequestType { explainText, openWorkbench, newSession, setBrowserProvider, checkPage };

template <> struct EnumRawValues<BridgeRequestType>
{
    static constexpr std::array cases{
        std::pair{BridgeRequestType::explainText, "EXPLAIN_TEXT"},
        std::pair{BridgeRequestType::openWorkbench, "OPEN_WORKBENCH"},
        std::pair{BridgeRequestType::newSession, "NEW_SESSION"},
        std::pair{BridgeRequestType::setBrowserProvider, "SET_BROWSER_PROVIDER"},
        std::pair{BridgeRequestType::checkPage, "CHECK_PAGE"},
    };
};

// One queued request for the companion extension, as stored in the queue folder.
struct BridgeRequest
{
    QString id;
    BridgeRequestType type = BridgeRequestType::explainText;
    std::optional<QString> text;
    std::optional<QString> provider;
    std::optional<QString> depthInstruction;
    double createdAt = 0; // milliseconds since 1970, fraction kept

    QJsonObject toJson() const;
    // Compact JSON with sorted keys; absent optionals are left out.
    QByteArray encode() const;
    // Needs "id", "type" (a known raw value) and a numeric "createdAt"; the optionals must be strings
    // when present.
    static std::optional<BridgeRequest> decode(const QByteArray& bytes);
    static std::optional<BridgeRequest> fromJson(const QJsonObject& object);

    friend bool operator==(const BridgeRequest&, const BridgeRequest&) = default;
};

} // namespace velnora
