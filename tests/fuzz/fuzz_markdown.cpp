// libFuzzer target for the Markdown renderer. Besides "no crash" it checks the two properties streaming
// relies on: the work grows linearly with the input, and every prefix of a document renders as well as the
// whole (the card renders each prefix of the answer while it arrives).
//
// Input: two bytes that pick a middle part of the document, then the document in UTF-8. The middle part is
// repeated ("pumped") so that a construct that costs quadratic time shows as a 4x cost for a doubled
// input, whatever the input's own size. Cost is the thread's CPU time, taken once; only a suspicious
// ratio is measured again, larger and as the best of several runs, before it counts as a fault.
#include "FuzzInput.h"
#include "overlay/MarkdownRenderer.h"

#include <QGuiApplication>
#include <QTextDocument>
#include <algorithm>
#include <ctime>

using namespace velnora;

namespace {

// Renders and checks what holds for every document: the output is at most a bounded multiple of the
// input (a three-character rule becomes 24 characters, the largest growth) and has no carriage return.
void renderChecked(const QString& markdown)
{
    static const SemanticColors colours = SemanticColors::from(OverlayStyle::lightPalette());
    QTextDocument document;
    MarkdownRenderer::render(markdown, document, colours);
    const QString plain = document.toPlainText();
    if (plain.size() > 8 * markdown.size() + 1) {
        fuzzFault("output out of proportion to the input");
    }
    if (plain.contains(u'\r')) {
        fuzzFault("a carriage return reached the output");
    }
}

double cost(const QString& markdown, int runs)
{
    const auto milliseconds = [] {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
    };
    double best = 1e300;
    for (int run = 0; run < runs; ++run) {
        const double start = milliseconds();
        renderChecked(markdown);
        best = std::min(best, milliseconds() - start);
    }
    return best;
}

struct Pump
{
    QString before, middle, after;

    // The document with the middle part repeated until the middle holds at least `size` characters.
    QString withMiddleOf(qsizetype size) const
    {
        return before + middle.repeated(std::max<qsizetype>(1, (size + middle.size() - 1) / middle.size())) +
               after;
    }
};

// How much more the document with a doubled middle costs, as a whole and cut to prefixes (a streaming
// answer is rendered at every cut, where markup is still open): linear work gives 2, quadratic 4. The
// absolute allowance keeps sub-millisecond timer noise from counting.
double growth(const Pump& pump, qsizetype size, int runs, double allowance)
{
    const QString single = pump.withMiddleOf(size);
    const QString doubled = pump.withMiddleOf(2 * size);
    double worst = 0;
    for (const double cut : {0.25, 0.5, 0.75, 0.999, 1.0}) {
        const double shorter = cost(single.first(qsizetype(double(single.size()) * cut)), runs);
        const double longer = cost(doubled.first(qsizetype(double(doubled.size()) * cut)), runs);
        worst = std::max(worst, longer / (shorter + allowance));
    }
    return worst;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    startApplication<QGuiApplication>(); // fonts need it
    // Fonts and formats are created on first use; that one-time cost must not be taken for a slow input.
    renderChecked(QStringLiteral("# a\n## b\n### c\n#### d\n- e\n1. f\n> g\n---\n**h** *i* ~~j~~ `k` "
                                 "[l](https://example.com)\n```m\nn\n```"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const QString markdown = QString::fromUtf8(reinterpret_cast<const char*>(data) + 2, qsizetype(size - 2));
    renderChecked(markdown);
    // Every prefix of a short document, cut at each UTF-16 unit (so also inside a surrogate pair).
    for (qsizetype length = 0; markdown.size() <= 64 && length < markdown.size(); ++length) {
        renderChecked(markdown.first(length));
    }
    if (markdown.isEmpty()) {
        return 0;
    }

    // A middle of up to 64 units: a costly construct repeats a short piece.
    const qsizetype begin = data[0] % markdown.size();
    const qsizetype length = 1 + data[1] % std::min<qsizetype>(64, markdown.size() - begin);
    const Pump pump{markdown.first(begin), markdown.sliced(begin, length), markdown.sliced(begin + length)};
    // At small sizes the linear part hides a quadratic one, so the first look uses a lower ratio. Only what
    // holds at two larger sizes, each the best of several runs, counts.
    if (growth(pump, 1000, 2, 0.2) <= 2.6) {
        return 0;
    }
    double worst = 0;
    for (const auto& [larger, runs] : {std::pair{8000, 2}, std::pair{16000, 3}}) {
        worst = growth(pump, larger, runs, 1.0);
        if (worst <= 3) {
            return 0;
        }
    }
    std::fprintf(stderr, "fuzz_markdown: a doubled input cost %.1fx\n", worst);
    fuzzFault("more than linear work");
}
