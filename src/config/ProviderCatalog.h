#pragma once

#include "config/EnumRawValues.h"

#include <QList>
#include <QString>

namespace velnora {

enum class ProviderWireProtocol { openAIResponses, openAIChat, anthropicMessages, geminiGenerateContent };
enum class ProviderMenuGroup { mainlandChina, international, custom };
enum class ExecutionMode { browser, api };
enum class ExplanationDepth { fast, balanced, deep };
enum class BrowserProvider { doubao, deepseek, qwen, kimi, glm, hunyuan, ernie };

template <>
struct EnumRawValues<ProviderWireProtocol>
{
    static constexpr std::array cases{
        std::pair{ProviderWireProtocol::openAIResponses, "openAIResponses"},
        std::pair{ProviderWireProtocol::openAIChat, "openAIChat"},
        std::pair{ProviderWireProtocol::anthropicMessages, "anthropicMessages"},
        std::pair{ProviderWireProtocol::geminiGenerateContent, "geminiGenerateContent"},
    };
};

template <>
struct EnumRawValues<ProviderMenuGroup>
{
    static constexpr std::array cases{
        std::pair{ProviderMenuGroup::mainlandChina, "mainlandChina"},
        std::pair{ProviderMenuGroup::international, "international"},
        std::pair{ProviderMenuGroup::custom, "custom"},
    };
};

template <>
struct EnumRawValues<ExecutionMode>
{
    static constexpr std::array cases{
        std::pair{ExecutionMode::browser, "browser"},
        std::pair{ExecutionMode::api, "api"},
    };
};

template <>
struct EnumRawValues<ExplanationDepth>
{
    static constexpr std::array cases{
        std::pair{ExplanationDepth::fast, "fast"},
        std::pair{ExplanationDepth::balanced, "balanced"},
        std::pair{ExplanationDepth::deep, "deep"},
    };
};

template <>
struct EnumRawValues<BrowserProvider>
{
    static constexpr std::array cases{
        std::pair{BrowserProvider::doubao, "doubao"}, std::pair{BrowserProvider::deepseek, "deepseek"},
        std::pair{BrowserProvider::qwen, "qwen"},     std::pair{BrowserProvider::kimi, "kimi"},
        std::pair{BrowserProvider::glm, "glm"},       std::pair{BrowserProvider::hunyuan, "hunyuan"},
        std::pair{BrowserProvider::ernie, "ernie"},
    };
};

// The extra sentence that tells the model how deep to go.
QString depthInstruction(ExplanationDepth depth);
// Short Chinese name of a depth, for menus and the settings window.
QString depthTitle(ExplanationDepth depth);
// Chinese name of a browser-mode service.
QString browserProviderTitle(BrowserProvider provider);

struct ProviderDefinition
{
    QString id;
    QString title;
    QString iconName;
    ProviderMenuGroup menuGroup = ProviderMenuGroup::mainlandChina;
    ProviderWireProtocol wireProtocol = ProviderWireProtocol::openAIChat;
    QString defaultBaseURL;
    QString defaultModel;

    // The seven built-in services, in menu order.
    static const QList<ProviderDefinition>& builtIn();
    // The built-in with that id; "doubao" for an unknown id (ids are case-sensitive).
    static const ProviderDefinition& definition(const QString& id);
    // The built-in with that id, or nullptr.
    static const ProviderDefinition* find(const QString& id);

    static QString platformTitle(const QString& id);
    static QString compactTitle(const QString& id, const QString& title);
    QString platformTitle() const { return platformTitle(id); }
    QString compactTitle() const { return compactTitle(id, title); }

    friend bool operator==(const ProviderDefinition&, const ProviderDefinition&) = default;
};

namespace ExplainerConstants {
// Identifier of the companion Chrome extension of this build.
QString extensionIdentifier();
// The extension's published identifier, used when the build sets none.
inline constexpr const char* defaultExtensionIdentifier = "kembcdlbgbcnnchcnbdhbmbhbejnedjf";
// The same extension in Firefox (its manifest's gecko ID).
QString firefoxExtensionIdentifier();
inline constexpr const char* defaultFirefoxExtensionIdentifier = "bridge@velnora.tarnwick.cn";
} // namespace ExplainerConstants

} // namespace velnora
