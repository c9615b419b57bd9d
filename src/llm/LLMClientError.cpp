#include "llm/LLMClientError.h"

namespace velnora {

QString LLMClientError::description() const
{
    switch (m_kind) {
    case Kind::api:
    case Kind::invalidAPIKey:
        return m_message;
    case Kind::http:
        return QStringLiteral("请求失败（HTTP %1）：").arg(m_status) + m_message;
    case Kind::invalidRequest:
        return QStringLiteral("无法生成模型请求。");
    case Kind::cancelled:
        return QStringLiteral("已停止生成。");
    case Kind::emptyResponse:
        return QStringLiteral("模型没有返回可显示的文字。");
    }
    return {};
}

} // namespace velnora
