import QtQuick
import QtQuick.Controls.Basic

// A button drawn as a plain coloured text, like a link: no frame, a pointing hand on hover and
// an underline while the pointer is over it.
KeyboardButton {
    id: link

    property color textColor: "white"

    padding: 2
    flat: true
    hoverEnabled: true
    Accessible.role: Accessible.Link
    Accessible.name: text

    background: null
    contentItem: Text {
        objectName: "linkLabel"
        text: link.text
        textFormat: Text.PlainText
        font.pixelSize: link.font.pixelSize
        color: link.textColor
        opacity: link.down ? 0.7 : 1
        font.underline: link.hovered
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }

    HoverHandler {
        cursorShape: Qt.PointingHandCursor
    }
}
