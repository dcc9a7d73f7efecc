// The demo PIN dialog.  It talks to the demo plug-in through the host's
// Kavori object and ends the host with a PKCS#11 result name:
// "CKR_OK" once the token has accepted the PIN, "CKR_FUNCTION_CANCELED" when
// the user cancels, or the reason why no PIN can be entered.
"use strict";

(function () {
  var CKR_PIN_INCORRECT = 0xa0;
  var CKR_PIN_INVALID = 0xa1;
  var CKR_PIN_LEN_RANGE = 0xa2;
  var CKR_PIN_EXPIRED = 0xa3;
  var CKR_PIN_LOCKED = 0xa4;
  var CKR_DEVICE_REMOVED = 0x32;
  var CKR_TOKEN_NOT_PRESENT = 0xe0;
  var CKR_TOKEN_NOT_RECOGNIZED = 0xe1;

  var api = window.Kavori || previewApi();
  var $ = function (id) { return document.getElementById(id); };
  var form = $("pin-form");
  var pin = $("pin");
  var submit = $("submit");
  var cancelButton = $("cancel");
  var slotSelect = $("slot");

  var closing = false;
  var closeResult = null;  // set when the dialog can only be closed
  var minLength = 0;

  function exit(result) {
    if (closing) return;
    closing = true;
    api.Application("exit", result);
  }

  function cancel() { exit("CKR_FUNCTION_CANCELED"); }

  function showError(title, detail) {
    $("error-title").textContent = title;
    $("error-detail").textContent = detail || "";
    $("error").hidden = false;
    pin.setAttribute("aria-invalid", "true");
    pin.classList.remove("shake");
    void pin.offsetWidth;  // restarts the animation
    pin.classList.add("shake");
  }

  function clearError() {
    $("error").hidden = true;
    pin.removeAttribute("aria-invalid");
  }

  // PKCS#11 tells no number of tries, only that few or one are left.
  function triesText(state) {
    if (state === "final-try") return "One try left: another wrong PIN locks the token.";
    if (state === "count-low") return "Only a few tries are left before the token locks.";
    return "Please try again.";
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
    var label = api.GetProperty("Token:Label");
    var serial = api.GetProperty("Token:Serial");
    $("token-label").textContent = label || "Unnamed token";
    $("token-serial").textContent = serial ? "Serial " + serial : "";
    document.title = "Enter PIN" + (label ? " for " + label : "");
    minLength = parseInt(api.GetProperty("Token:MinPinLength"), 10) || 0;
    var maxLength = parseInt(api.GetProperty("Token:MaxPinLength"), 10) || 0;
    if (maxLength > 0) pin.maxLength = maxLength;
    var model = api.GetProperty("Token:Model");
    var version = /Kavori\/(\S+)/.exec(navigator.userAgent);
    $("foot").textContent = "Kavori" + (version ? " " + version[1] : "") + (model ? " · " + model : "");

    var state = api.GetProperty("Token:PinState");
    if (state === "locked") {
      closeOnly("CKR_PIN_LOCKED", "This token's PIN is locked.", "Ask your administrator to unlock it.");
    } else if (state === "not-initialized") {
      closeOnly("CKR_USER_PIN_NOT_INITIALIZED", "This token has no PIN yet.", "Set one up first.");
    } else if (state === "count-low" || state === "final-try") {
      showError("Careful.", triesText(state));
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
    var status = api.GetProperty("Status");
    if (status === "no-module") {
      $("token-label").textContent = "No token software";
      closeOnly("CKR_FUNCTION_FAILED", "The token software could not be loaded.", api.GetProperty("Module"));
      return;
    }
    if (status !== "ready") {
      $("token-label").textContent = "No token found";
      closeOnly("CKR_TOKEN_NOT_PRESENT", "No security token found.", "Insert your token and open the dialog again.");
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
      exit("CKR_OK");
      return;
    }
    var state = api.GetProperty("Token:PinState");
    if (rv === CKR_PIN_LOCKED || state === "locked") {
      closeOnly("CKR_PIN_LOCKED", "The PIN is locked.", "Too many wrong PINs. Ask your administrator to unlock it.");
    } else if (rv === CKR_PIN_INCORRECT) {
      showError("Wrong PIN.", triesText(state));
    } else if (rv === CKR_PIN_INVALID || rv === CKR_PIN_LEN_RANGE) {
      showError("The token does not accept this PIN.", "Check its length and characters.");
    } else if (rv === CKR_PIN_EXPIRED) {
      closeOnly("CKR_PIN_EXPIRED", "The PIN has expired.", "Change it before using the token.");
    } else if (rv === CKR_TOKEN_NOT_PRESENT || rv === CKR_DEVICE_REMOVED || rv === CKR_TOKEN_NOT_RECOGNIZED) {
      showError("The token is not available.", "Insert it and try again.");
    } else {
      var name = api.GetProperty("LastResult") || "code " + rv;
      showError("The token refused the PIN.", "It answered " + name + ".");
    }
    pin.focus();
  }

  form.addEventListener("submit", function (event) {
    event.preventDefault();
    if (closing) return;
    if (closeResult) {
      exit(closeResult);
      return;
    }
    if (pin.value.length === 0) {
      showError("Please enter your PIN.");
      pin.focus();
      return;
    }
    if (pin.value.length < minLength) {
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
    // The login blocks the page until the token answers; paint first.
    window.setTimeout(function () {
      submit.textContent = "Unlock";
      login();
    }, 30);
  });

  cancelButton.addEventListener("click", cancel);
  document.addEventListener("keydown", function (event) {
    if (event.key === "Escape") {
      event.preventDefault();
      cancel();
    }
  });

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
        return ok ? 0 : CKR_PIN_INCORRECT;
      },
      Application: function (command, result) { document.body.setAttribute("data-result", result); }
    };
  }

  start();
})();
