#pragma once

#include <QString>

namespace velnora::PromptLibrary {

QString defaultSystemPrompt();
inline constexpr const char* openingSentence = "你是一位特别擅长把陌生概念讲清楚的老师。";
inline constexpr const char* outputRule = "只输出给用户看的最终答案，不要展示内部分析、思考过程、推理草稿或自我对话。";

// Trimmed prompt; the default when blank; prompts written from an older default gain the output rule.
QString normalizedSystemPrompt(const QString& prompt);

} // namespace velnora::PromptLibrary
