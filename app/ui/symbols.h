// Symbols: the small pictures of the setup window — a down-arrow circle
// (move), a message bubble (Full Disk Access), a paper plane (Automation), a
// person in a circle (Contacts), linked rings (connect), a check-mark circle
// (granted and done) and the back chevron — drawn with QPainter at any size so
// that no image ships in the tree.
//
// Painting follows Qt's rules: the main thread for widgets, any thread for a
// QPainter on a QImage.
#pragma once

#include <QColor>
#include <QPainter>
#include <QRectF>
#include <QWidget>

namespace corvane {

enum class Symbol {
  arrowDownCircle,
  link,
  message,
  paperplane,
  personCircle,
  checkmarkCircle,
  chevronLeft
};

// Draws `symbol` in `color`, fitted and centred in `rect`. Filled symbols
// cut their inner lines out, so the background shows through them.
void paintSymbol(QPainter& painter, Symbol symbol, const QRectF& rect, const QColor& color);

// A widget showing one symbol at its fixed size.
class SymbolView : public QWidget {
 public:
  SymbolView(Symbol symbol, QColor color, int size, QWidget* parent = nullptr);

  Symbol symbol() const { return symbol_; }
  void setSymbol(Symbol symbol, QColor color);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  Symbol symbol_;
  QColor color_;
};

}  // namespace corvane
