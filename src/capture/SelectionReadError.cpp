#include "capture/SelectionReadError.h"

namespace velnora {

QString SelectionReadError::description() const
{
    switch (m_case) {
    case Case::accessibilityPermissionRequired:
        return QStringLiteral("需要在系统设置中授予辅助功能权限。");
    case Case::secureField:
        return QStringLiteral("不会读取密码或安全输入框中的内容。");
    case Case::noSelection:
        return QStringLiteral("没有读取到选中的文字，请先选中文字再试。");
    case Case::clipboardUnavailable:
        return QStringLiteral("无法通过剪贴板读取当前选区。");
    case Case::selectionTooLong:
        return QStringLiteral("选中的文字过长，请缩短到 10 万字以内。");
    case Case::clipboardNotSaved:
        return QStringLiteral(
            "剪贴板里的内容无法完整保存，为免丢失没有自动复制；请先 Ctrl+C 复制，再用菜单栏的“解释剪贴板”。");
    }
    return {};
}

} // namespace velnora
