import QtQuick
import QtQuick.Controls.Basic

// A large filled button in a tint colour with white text. The caption is drawn by a plain Text
// so that it shows exactly as given: Qt Quick Controls would read an "&" in `text` as a
// keyboard mnemonic, hide it and bind Alt plus the next key to the button.
KeyboardButton {
    id: button

    // What the button shows and what assistive technology reads.
    property string label
    // The longest caption the button will show; its width is kept so the button does not jump
    // when the caption changes.
    property string widestLabel: label
    property color tint: "green"

    text: label.replace(/&/g, "&&")
    Accessible.name: label
    hoverEnabled: true
    font.pixelSize: 15
    font.weight: Font.DemiBold
    leftPadding: 26
    rightPadding: 26
    implicitHeight: 36
    focusRingRadius: 11
    implicitWidth: Math.ceil(Math.max(widest.advanceWidth, caption.implicitWidth))
                   + leftPadding + rightPadding

    TextMetrics {
        id: widest
        font: button.font
        text: button.widestLabel
    }

    contentItem: Text {
        id: caption
        objectName: "prominentButtonLabel"
        text: button.label
        textFormat: Text.PlainText
        font: button.font
        color: "white"
        opacity: button.enabled ? 1 : 0.7
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }

    background: Rectangle {
        radius: 8
        color: button.down ? Qt.darker(button.tint, 1.2)
                           : button.hovered ? Qt.lighter(button.tint, 1.08) : button.tint
        opacity: button.enabled ? 1 : 0.45
    }
}
