// The demo PIN dialog.  It ends the host with a PKCS#11 result name:
// "CKR_OK" once the token has accepted the PIN, "CKR_FUNCTION_CANCELED" when
// the user cancels, or the reason why no PIN can be entered.
"use strict";

(function () {
  var K = KavoriDialog;
  var $ = K.$;
  var api = K.connect(previewApi);
  var form = $("pin-form");
  var pin = $("pin");
  var submit = $("submit");
  var cancelButton = $("cancel");
  var slotSelect = $("slot");

  var closeResult = null;  // set when the dialog can only be closed
  var minLength = 0;

  function cancel() { K.exit("CKR_FUNCTION_CANCELED"); }

  function showError(title, detail) {
    K.show($("error"), title, detail);
    pin.setAttribute("aria-invalid", "true");
    pin.classList.remove("shake");
    void pin.offsetWidth;  // restarts the animation
    pin.classList.add("shake");
  }

  function clearError() {
    $("error").hidden = true;
    pin.removeAttribute("aria-invalid");
  }

  // No PIN can be entered any more: Enter or the button close the dialog
  // with the reason as its result.
  function closeOnly(result, title, detail) {
    closeResult = result;
    showError(title, detail);
    pin.value = "";
    pin.disabled = true;
    slotSelect.disabled = true;
    submit.textContent = "Close";
    $("hint").innerHTML = "<kbd>Enter</kbd> to close";
    submit.focus();
  }

  function showToken() {
    var token = K.showToken();
    document.title = "Enter PIN" + (token.label ? " for " + token.label : "");
    minLength = token.minPinLength;
    if (token.maxPinLength > 0) pin.maxLength = token.maxPinLength;
    if (token.pinState === "locked") {
      closeOnly("CKR_PIN_LOCKED", "This token's PIN is locked.", "Ask your administrator to unlock it.");
    } else if (token.pinState === "not-initialized") {
      closeOnly("CKR_USER_PIN_NOT_INITIALIZED", "This token has no PIN yet.", "Set one up first.");
    } else if (token.pinState === "count-low" || token.pinState === "final-try") {
      showError("Careful.", K.triesText(token.pinState));
      pin.removeAttribute("aria-invalid");
    }
  }

  function fillSlots() {
    var count = parseInt(api.GetProperty("SlotCount"), 10) || 0;
    if (count < 2) return;
    for (var i = 0; i < count; i++) {
      var text = api.EnumProperty("Slot", String(i));
      if (!text) break;
      var token = JSON.parse(text);
      var option = document.createElement("option");
      option.value = String(token.slot);
      option.textContent = token.label + (token.serial ? " (" + token.serial + ")" : "");
      option.selected = token.selected;
      slotSelect.appendChild(option);
    }
    $("slot-field").hidden = false;
    slotSelect.addEventListener("change", function () {
      api.SetProperty("Slot", slotSelect.value);
      clearError();
      showToken();
      pin.focus();
    });
  }

  function start() {
    var why = K.unavailable();
    if (why) {
      $("token-label").textContent = why.label;
      closeOnly(why.result, why.title, why.detail);
      return;
    }
    fillSlots();
    showToken();
    pin.focus();
  }

  function login() {
    api.SetProperty("Pin", pin.value);
    pin.value = "";  // the plug-in has it now, and wipes it after the login
    var rv = api.Invoke("Login");
    submit.disabled = false;
    cancelButton.disabled = false;
    pin.disabled = false;
    if (rv === 0) {
      K.exit("CKR_OK");
      return;
    }
    var state = api.GetProperty("Token:PinState");
    if (rv === K.CKR.PIN_LOCKED || state === "locked") {
      closeOnly("CKR_PIN_LOCKED", "The PIN is locked.", "Too many wrong PINs. Ask your administrator to unlock it.");
    } else if (rv === K.CKR.PIN_INCORRECT) {
      showError("Wrong PIN.", K.triesText(state));
    } else if (rv === K.CKR.PIN_INVALID || rv === K.CKR.PIN_LEN_RANGE) {
      showError("The token does not accept this PIN.", "Check its length and characters.");
    } else if (rv === K.CKR.PIN_EXPIRED) {
      closeOnly("CKR_PIN_EXPIRED", "The PIN has expired.", "Change it before using the token.");
    } else if (rv === K.CKR.TOKEN_NOT_PRESENT || rv === K.CKR.DEVICE_REMOVED ||
               rv === K.CKR.TOKEN_NOT_RECOGNIZED) {
      showError("The token is not available.", "Insert it and try again.");
    } else {
      var name = api.GetProperty("LastResult") || "code " + rv;
      showError("The token refused the PIN.", "It answered " + name + ".");
    }
    pin.focus();
  }

  form.addEventListener("submit", function (event) {
    event.preventDefault();
    if (K.closed()) return;
    if (closeResult) {
      K.exit(closeResult);
      return;
    }
    if (pin.value.length === 0) {
      showError("Please enter your PIN.");
      pin.focus();
      return;
    }
    if (K.pinLength(pin.value) < minLength) {
      // Too short never counts as a try: the token is not asked.
      showError("This PIN is too short.", "It has at least " + minLength + " characters.");
      pin.focus();
      return;
    }
    clearError();
    submit.disabled = true;
    cancelButton.disabled = true;
    pin.disabled = true;
    submit.textContent = "Checking…";
    K.afterPaint(function () {
      submit.textContent = "Unlock";
      login();
    });
  });

  cancelButton.addEventListener("click", cancel);
  K.onEscape(function () { return "CKR_FUNCTION_CANCELED"; });

  // Opened in an ordinary browser, the page shows itself with a pretend
  // token (PIN 123456), so that it can be worked on without the host.
  function previewApi() {
    var state = "ok";
    var entered = "";
    var values = {
      "Status": "ready", "SlotCount": "1", "Token:Label": "Preview token", "Token:Serial": "0000000000000000",
      "Token:Model": "Preview", "Token:MinPinLength": "4", "Token:MaxPinLength": "255"
    };
    return {
      GetProperty: function (name) { return name === "Token:PinState" ? state : (values[name] || ""); },
      SetProperty: function (name, value) { if (name === "Pin") entered = value; return null; },
      EnumProperty: function () { return ""; },
      Invoke: function () {
        var ok = entered === "123456";
        entered = "";
        state = ok ? "ok" : "count-low";
        return ok ? 0 : K.CKR.PIN_INCORRECT;
      },
      Application: function (command, result) { document.body.setAttribute("data-result", result); }
    };
  }

  start();
})();
