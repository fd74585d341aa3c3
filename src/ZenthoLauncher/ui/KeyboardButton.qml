import QtQuick
import QtQuick.Controls.Basic

// A button that the keyboard can work as well as the mouse: Return and Enter press it as Space
// does, and a focus ring shows when the keyboard has brought the focus to it.
Button {
    id: control

    // The ring's corner radius, to follow the button's own shape.
    property alias focusRingRadius: ring.radius

    function pressFromKeyboard(event) {
        if (!event.isAutoRepeat)
            control.clicked();
        event.accepted = true;
    }
    Keys.onReturnPressed: (event) => pressFromKeyboard(event)
    Keys.onEnterPressed: (event) => pressFromKeyboard(event)

    FocusRing {
        id: ring
        shown: control.visualFocus
    }
}
