#include "config/ConfigurationError.h"

namespace velnora {

QString ConfigurationError::description() const
{
    switch (m_kind) {
    case Kind::editionRestricted:
        return QStringLiteral("当前应用仅支持内置服务的官方地址及对应模型系列，请恢复默认地址并选择支持的模型。");
    case Kind::invalidBaseURL:
        return QStringLiteral("API 地址无效，请在设置中检查 Base URL。");
    case Kind::missingModel:
        return QStringLiteral("没有配置模型名称。");
    case Kind::missingAPIKey:
        return QStringLiteral("尚未保存所选提供商的 API Key。");
    }
    return {};
}

const char* ConfigurationError::what() const noexcept
{
    switch (m_kind) {
    case Kind::editionRestricted:
        return "editionRestricted";
    case Kind::invalidBaseURL:
        return "invalidBaseURL";
    case Kind::missingModel:
        return "missingModel";
    case Kind::missingAPIKey:
        return "missingAPIKey";
    }
    return "ConfigurationError";
}

} // namespace velnora
