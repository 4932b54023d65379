#include "app/ui/app_icon.h"

#include <QIconEngine>
#include <QImageWriter>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPainterPathStroker>
#include <QRadialGradient>
#include <charconv>
#include <cmath>
#include <numbers>

namespace corvane::AppIcon {
namespace {

// Every shape is laid out on a 1024-unit canvas and scaled to the size asked
// for, so all sizes are the same drawing.
constexpr double kCanvas = 1024.0;

// The body follows the usual macOS grid: 824 units with a 100-unit margin
// that leaves room for the shadow.
const QRectF kBody(100, 100, 824, 824);
constexpr double kBodyRadius = 185.0;

// A speech bubble with its tail at the lower left.
QPainterPath bubble() {
  QPainterPath body;
  body.addRoundedRect(QRectF(236, 262, 552, 440), 190, 190);
  QPainterPath tail;
  tail.moveTo(318, 600);
  tail.cubicTo(322, 690, 296, 748, 252, 792);
  tail.cubicTo(346, 780, 420, 740, 470, 680);
  tail.closeSubpath();
  return body.united(tail).simplified();
}

// Two arrows chasing each other round a circle inside the bubble: messages
// going both ways.
QPainterPath exchangeMark() {
  const QPointF centre(512, 482);
  const double radius = 122;
  const double stroke = 46;
  const QRectF circle(centre.x() - radius, centre.y() - radius, 2 * radius, 2 * radius);

  QPainterPath arcs;
  QPainterPath heads;
  for (const double start : {28.0, 208.0}) {
    const double sweep = 112.0;
    arcs.arcMoveTo(circle, start);
    arcs.arcTo(circle, start, sweep);

    // The head sits at the arc's end and points along it (counter-clockwise
    // on screen: angles grow upwards in Qt's arc convention).
    const double end = (start + sweep) * std::numbers::pi / 180.0;
    const QPointF radial(std::cos(end), -std::sin(end));
    const QPointF along(-std::sin(end), -std::cos(end));
    const QPointF base = centre + radius * radial;
    const double half = stroke * 1.25;
    QPolygonF head;
    head << base + radial * half << base + along * (stroke * 1.6) << base - radial * half;
    heads.addPolygon(head);
    heads.closeSubpath();
  }
  QPainterPathStroker stroker;
  stroker.setWidth(stroke);
  stroker.setCapStyle(Qt::RoundCap);
  return stroker.createStroke(arcs).united(heads).simplified();
}

// A transparent square of `size` pixels with `paint` drawn on it in canvas
// units, or a null image for a size out of range.
template <typename Paint>
QImage paintOnCanvas(int size, Paint paint) {
  if (size <= 0 || size > maxRenderSize) return {};
  QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
  if (image.isNull()) return {};
  image.fill(Qt::transparent);
  QPainter painter(&image);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.scale(size / kCanvas, size / kCanvas);
  painter.setPen(Qt::NoPen);
  paint(painter);
  painter.end();
  return image;
}

}  // namespace

QImage draw(int size) {
  return paintOnCanvas(size, [](QPainter& painter) {
    // A soft shadow under the body: stacked translucent layers, widest first.
    for (int layer = 0; layer < 8; ++layer) {
      const double spread = 22.0 - layer * 2.75;
      painter.setBrush(QColor(20, 10, 40, 7 + layer * 2));
      painter.drawRoundedRect(kBody.adjusted(-spread, -spread + 14, spread, spread + 14),
                              kBodyRadius + spread, kBodyRadius + spread);
    }

    QLinearGradient fill(kBody.topLeft(), kBody.bottomRight());
    fill.setColorAt(0.0, QColor(0xFF, 0xA0, 0x6A));
    fill.setColorAt(0.48, QColor(0xE8, 0x4C, 0x7D));
    fill.setColorAt(1.0, QColor(0x5B, 0x3C, 0xC4));
    painter.setBrush(fill);
    painter.drawRoundedRect(kBody, kBodyRadius, kBodyRadius);

    // Light from above: a faint glow over the upper part of the body.
    QRadialGradient glow(QPointF(420, 150), 720);
    glow.setColorAt(0.0, QColor(255, 255, 255, 70));
    glow.setColorAt(1.0, QColor(255, 255, 255, 0));
    painter.setBrush(glow);
    painter.drawRoundedRect(kBody, kBodyRadius, kBodyRadius);

    const QPainterPath shape = bubble();
    painter.setBrush(QColor(40, 10, 60, 50));
    painter.drawPath(shape.translated(0, 12));
    painter.setBrush(QColor(255, 255, 255, 245));
    painter.drawPath(shape);

    QLinearGradient ink(QPointF(390, 360), QPointF(634, 604));
    ink.setColorAt(0.0, QColor(0xF0, 0x5A, 0x78));
    ink.setColorAt(1.0, QColor(0x6A, 0x42, 0xD0));
    painter.setBrush(ink);
    painter.drawPath(exchangeMark());
  });
}

QImage drawTemplate(int size) {
  return paintOnCanvas(size, [](QPainter& painter) {
    // The bubble fills the square: at 18 pixels every one counts.
    painter.translate(kCanvas / 2, kCanvas / 2);
    painter.scale(1.55, 1.55);
    painter.translate(-kCanvas / 2, -527);
    painter.setBrush(Qt::black);
    painter.drawPath(bubble());
    // The mark is cut out of the bubble, so the menu bar shows through it.
    painter.setCompositionMode(QPainter::CompositionMode_Clear);
    painter.drawPath(exchangeMark());
  });
}

namespace {

// Draws at the size asked for, when asked: an icon of six ready-made sizes
// would hold 1.4 MB of pixels for as long as the application runs.
class DrawnIconEngine final : public QIconEngine {
 public:
  DrawnIconEngine(Drawing draw, QList<QSize> sizes) : draw_(draw), sizes_(std::move(sizes)) {}

  QSize actualSize(const QSize& size, QIcon::Mode, QIcon::State) override {
    const int side = std::min(size.width(), size.height());
    return {side, side};
  }
  QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
    return QPixmap::fromImage(draw_(actualSize(size, mode, state).width()));
  }
  void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State state) override {
    const QSize side = actualSize(rect.size(), mode, state);
    const QRect square(rect.topLeft() + QPoint((rect.width() - side.width()) / 2,
                                               (rect.height() - side.height()) / 2),
                       side);
    painter->drawImage(square, draw_(side.width()));
  }
  QList<QSize> availableSizes(QIcon::Mode, QIcon::State) override { return sizes_; }
  QString key() const override { return QStringLiteral("corvane-drawn"); }
  QIconEngine* clone() const override { return new DrawnIconEngine(draw_, sizes_); }

 private:
  Drawing draw_;
  QList<QSize> sizes_;
};

}  // namespace

QIcon drawnIcon(Drawing draw, std::initializer_list<int> sizes) {
  QList<QSize> list;
  for (const int size : sizes) list.append(QSize(size, size));
  return QIcon(new DrawnIconEngine(draw, std::move(list)));
}

QIcon windowIcon() { return drawnIcon(draw, {16, 32, 64, 128, 256, 512}); }

ParsedSize parseSize(std::string_view text) {
  const std::string quoted = "\"" + std::string(text) + "\"";
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
    return {std::nullopt, "--size must be a positive whole number of pixels, not " + quoted};
  }
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > maxRenderSize) {
    return {std::nullopt, "--size " + std::string(text) + " is larger than the largest size, " +
                              std::to_string(maxRenderSize)};
  }
  if (value == 0) return {std::nullopt, "--size must be at least 1, not " + quoted};
  return {value, {}};
}

std::optional<std::string> renderToFile(const std::string& path,
                                        const std::optional<std::string>& sizeText) {
  int size = defaultRenderSize;
  if (sizeText) {
    const ParsedSize parsed = parseSize(*sizeText);
    if (!parsed.size) return parsed.error;
    size = *parsed.size;
  }
  if (path.empty()) return "no output file given";
  const QImage image = draw(size);
  if (image.isNull()) return "not enough memory for a " + std::to_string(size) + " pixel image";
  QImageWriter writer(QString::fromStdString(path), "png");
  if (!writer.write(image)) {
    return "could not write " + path + ": " + writer.errorString().toStdString();
  }
  return std::nullopt;
}

}  // namespace corvane::AppIcon
