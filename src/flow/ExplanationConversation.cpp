#include "flow/ExplanationConversation.h"

namespace velnora {

QString ExplanationConversation::firstMessage(const QString& depthInstruction, const QString& material)
{
    return depthInstruction + QStringLiteral("\n\n<待解释材料>\n") + material.trimmed() +
           QStringLiteral("\n</待解释材料>");
}

QString ExplanationConversation::furtherSelectionMessage(const QString& depthInstruction, const QString& material)
{
    return depthInstruction +
           QStringLiteral("\n\n这是用户随后选中的材料。请结合前文上下文紧接着继续解释，重点说明它与前文的联系；"
                          "如果两者实际上无关，不要强行建立联系，直接解释新增材料。\n\n<新增待解释材料>\n") +
           material.trimmed() + QStringLiteral("\n</新增待解释材料>");
}

} // namespace velnora
