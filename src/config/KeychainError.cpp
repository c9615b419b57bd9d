#include "config/KeychainError.h"

namespace velnora {

QString KeychainError::messageForStatus(int32_t status)
{
    switch (status) {
    case itemNotFound:
        return QStringLiteral("在钥匙串中找不到指定的项目。");
    case decodeFailed:
        return QStringLiteral("无法解码钥匙串中保存的内容。");
    case collectionLocked:
        return QStringLiteral("钥匙串已锁定，请先解锁登录钥匙串。");
    case serviceUnavailable:
        return QStringLiteral("没有可用的钥匙串服务（Secret Service 未运行）。");
    case userCancelled:
        return QStringLiteral("解锁登录钥匙串的请求被取消了，API Key 没有读取也没有保存。");
    case timedOut:
        return QStringLiteral("钥匙串服务没有及时响应。");
    case accessDenied:
        return QStringLiteral("钥匙串拒绝了访问。");
    default:
        return {};
    }
}

QString KeychainError::description() const
{
    QString message = messageForStatus(m_status);
    if (message.isEmpty()) {
        message = m_detail.isEmpty() ? QStringLiteral("未知错误") : m_detail;
    }
    return QStringLiteral("无法访问系统钥匙串：") + message;
}

} // namespace velnora
