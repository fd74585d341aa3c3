import QtQuick

// Where the keyboard is: an outline in the title's lime drawn just outside the control that has
// the focus. Controls show it only once the keyboard has moved the focus (Tab, Shift+Tab), so a
// window used with the mouse, or just opened, looks exactly as it always does.
Rectangle {
    // Whether the outline is drawn; the control binds its visual focus here.
    property bool shown: false
    // Room between the control's edge and the outline.
    property real gap: 3

    objectName: "focusRing"
    visible: shown
    x: -gap
    y: -gap
    z: 10
    width: parent ? parent.width + 2 * gap : 0
    height: parent ? parent.height + 2 * gap : 0
    radius: 4
    color: "transparent"
    border.color: Qt.rgba(0.72, 1.0, 0.2, 1)
    border.width: 2
}
