import QtQuick

// One line under the window's column while a download runs: how much has arrived, how fast and
// how long it will still take. It sits in the window's free bottom margin, outside the column,
// so nothing in the column moves when it appears; with no download it is not there at all.
Text {
    // The model's caption; empty when no download runs.
    property string caption: ""

    visible: caption !== ""
    text: caption
    textFormat: Text.PlainText
    horizontalAlignment: Text.AlignHCenter
    elide: Text.ElideRight
    font.pixelSize: 11
    color: Qt.rgba(1, 1, 1, 0.55)
    Accessible.role: Accessible.StaticText
    Accessible.name: text
}
