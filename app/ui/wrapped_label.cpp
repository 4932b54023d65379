#include "app/ui/wrapped_label.h"

#include <QAbstractTextDocumentLayout>
#include <QPainter>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextLayout>
#include <cmath>

namespace corvane {
namespace {

int lineCount(const QTextDocument& document) {
  document.size();  // lays the text out, which the document does only when asked
  int lines = 0;
  for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
    lines += block.layout()->lineCount();
  }
  return lines;
}

}  // namespace

WrappedLabel::WrappedLabel(QWidget* parent) : QLabel(parent) { setWordWrap(true); }

void WrappedLabel::layOut(QTextDocument& document, int width) const {
  document.setDocumentMargin(0);
  document.setDefaultFont(font());
  QTextOption option(alignment() & Qt::AlignHorizontal_Mask);
  option.setWrapMode(QTextOption::WordWrap);
  document.setDefaultTextOption(option);
  const bool rich = textFormat() == Qt::RichText ||
                    (textFormat() == Qt::AutoText && Qt::mightBeRichText(text()));
  if (rich) {
    document.setHtml(text());
  } else {
    document.setPlainText(text());
  }
  document.setTextWidth(width);
}

int WrappedLabel::evenWidth(int available) const {
  QTextDocument document;
  layOut(document, available);
  const int lines = lineCount(document);
  if (lines < 2) return available;
  // Narrower never means fewer lines: the narrowest width that keeps the
  // count is found by halving.
  int low = 1, high = available;
  while (low < high) {
    const int middle = (low + high) / 2;
    document.setTextWidth(middle);
    if (lineCount(document) <= lines) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return high;
}

void WrappedLabel::setInsets(QMargins insets) {
  insets_ = insets;
  updateGeometry();
  update();
}

QRect WrappedLabel::textArea() const {
  return contentsRect().marginsRemoved(insets_ + margin());
}

QStringList WrappedLabel::lines() const {
  QStringList out;
  QTextDocument document;
  layOut(document, wordWrap() ? evenWidth(textArea().width()) : QWIDGETSIZE_MAX);
  document.size();
  for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
    const QTextLayout* layout = block.layout();
    for (int i = 0; i < layout->lineCount(); ++i) {
      const QTextLine line = layout->lineAt(i);
      out << block.text().mid(line.textStart(), line.textLength()).trimmed();
    }
  }
  return out;
}

int WrappedLabel::heightForWidth(int width) const {
  if (!wordWrap()) return QLabel::heightForWidth(width);
  // Around the text: the frame with the style sheet's padding, and the
  // insets. The same lines at their even width are no taller.
  const QMargins around = contentsMargins() + insets_ + margin();
  QTextDocument document;
  layOut(document, width - around.left() - around.right());
  return static_cast<int>(std::ceil(document.size().height())) + around.top() + around.bottom();
}

void WrappedLabel::paintEvent(QPaintEvent* event) {
  if (!wordWrap()) {
    QLabel::paintEvent(event);
    return;
  }
  QFrame::paintEvent(event);
  const QRect area = textArea();
  QTextDocument document;
  const int width = evenWidth(area.width());
  layOut(document, width);
  QPointF origin = area.topLeft();
  if (alignment() & Qt::AlignHCenter) origin.rx() += (area.width() - width) / 2.0;
  if (alignment() & Qt::AlignRight) origin.rx() += area.width() - width;
  if (alignment() & Qt::AlignVCenter) {
    origin.ry() += (area.height() - document.size().height()) / 2.0;
  }
  QPainter painter(this);
  painter.translate(origin);
  QAbstractTextDocumentLayout::PaintContext context;
  context.palette = palette();
  context.palette.setColor(QPalette::Text, palette().color(foregroundRole()));
  document.documentLayout()->draw(&painter, context);
}

}  // namespace corvane
