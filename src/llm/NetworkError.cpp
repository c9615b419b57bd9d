#include "llm/NetworkError.h"

namespace velnora {

QString NetworkError::description() const
{
    QString text = QStringLiteral("网络请求失败");
    if (!systemMessage.isEmpty()) {
        text += QStringLiteral("（") + systemMessage + QStringLiteral("）");
    }
    return text + QStringLiteral("。");
}

} // namespace velnora
