// The demo token administration dialog: the token's facts, changing the user
// PIN (C_SetPIN) and setting a new one with the SO PIN (C_InitPIN), which
// also unblocks a locked PIN.  Lengths and the repeated PIN are checked
// before the token is asked.  The dialog ends with the name of the module's
// answer to the last change tried ("CKR_OK", "CKR_PIN_INCORRECT", ...), or
// "CKR_FUNCTION_CANCELED" when none was tried.
"use strict";

(function () {
  var K = KavoriDialog;
  var $ = K.$;
  var api = K.connect(previewApi);
  var message = $("message");
  var token = {};
  var result = null;  // the name of the module's last answer

  // The two forms: what proves the right to change, and the new PIN twice.
  var forms = {
    change: { form: $("change-form"), proof: $("old-pin"), pin: $("new-pin"), again: $("new-pin-again"),
              button: $("change"), command: "ChangePin", proofName: "OldPin", missing: "Enter the current PIN." },
    unblock: { form: $("unblock-form"), proof: $("so-pin"), pin: $("unblock-pin"), again: $("unblock-pin-again"),
               button: $("unblock"), command: "UnblockPin", proofName: "SoPin", missing: "Enter the SO PIN." }
  };

  function say(kind, title, detail, field) {
    message.className = "message " + kind;
    message.setAttribute("role", kind === "ok" ? "status" : "alert");
    K.show(message, title, detail);
    if (field) {
      if (kind === "error") field.setAttribute("aria-invalid", "true");
      field.focus();
    }
  }

  function limitsText() {
    var min = token.minPinLength, max = token.maxPinLength;
    if (min && max) return "A new PIN has " + min + " to " + max + " characters.";
    if (min) return "A new PIN has at least " + min + " characters.";
    return max ? "A new PIN has at most " + max + " characters." : "";
  }

  // One form at a time, with its own button beside Close.
  function showUnblock(open) {
    forms.unblock.form.hidden = !open;
    forms.unblock.button.hidden = !open;
    forms.change.form.hidden = open;
    forms.change.button.hidden = open;
    $("unblock-toggle").setAttribute("aria-expanded", String(open));
    $("unblock-toggle").textContent =
      open ? "Change the PIN with the current one" : "Forgotten or locked? Use the SO PIN";
  }

  // A locked or missing user PIN can only be set with the SO PIN.
  function showState() {
    token.pinState = api.GetProperty("Token:PinState");
    $("pin-state").textContent = { "ok": "PIN in order", "count-low": "Few PIN tries left",
      "final-try": "One PIN try left", "locked": "PIN locked", "not-initialized": "No PIN set" }[token.pinState] ||
      "PIN state unknown";
    $("pin-state").className = "pin-state" + (token.pinState === "ok" ? "" : " bad");
    var blocked = token.pinState === "locked" || token.pinState === "not-initialized";
    $("unblock-toggle").hidden = blocked;
    if (blocked) showUnblock(true);
    return blocked;
  }

  // The checks that need no token: false, and the reason said, when one fails.
  function check(f) {
    var pin = f.pin.value, length = K.pinLength(pin);
    if (!f.proof.value) {
      say("error", f.missing, "", f.proof);
    } else if (token.minPinLength && length < token.minPinLength) {
      say("error", "The new PIN is too short.", limitsText(), f.pin);
    } else if (token.maxPinLength && length > token.maxPinLength) {
      say("error", "The new PIN is too long.", limitsText(), f.pin);
    } else if (f.again.value !== pin) {
      f.again.value = "";
      say("error", "The two new PINs differ.", "Type the same new PIN twice.", f.again);
    } else {
      return true;
    }
    return false;
  }

  function answer(f, rv) {
    var state = token.pinState;
    if (rv === 0) {
      say("ok", f === forms.change ? "The PIN has been changed." : "The new user PIN is set.",
          "Use the new PIN from now on.", $("close"));
    } else if (rv === K.CKR.PIN_INCORRECT) {
      say("error", f === forms.change ? "The current PIN is wrong." : "The SO PIN is wrong.",
          f === forms.change ? K.triesText(state) : "Please try again.", f.proof);
    } else if (rv === K.CKR.PIN_LOCKED || (f === forms.change && state === "locked")) {
      if (f === forms.change) showUnblock(true);
      say("error", f === forms.change ? "The PIN is locked." : "The SO PIN is locked.",
          f === forms.change ? "Too many wrong PINs. Unblock it with the SO PIN." : "Ask your administrator.",
          f === forms.change ? forms.unblock.proof : $("close"));
    } else if (rv === K.CKR.PIN_LEN_RANGE) {
      say("error", "The token does not take a new PIN of this length.", limitsText(), f.pin);
    } else if (rv === K.CKR.PIN_INVALID) {
      say("error", "The token does not take the new PIN.", "It holds characters the token does not allow.", f.pin);
    } else if (rv === K.CKR.TOKEN_WRITE_PROTECTED || rv === K.CKR.SESSION_READ_ONLY) {
      say("error", "The token is write-protected.", "Its PIN cannot be changed here.", $("close"));
    } else if (rv === K.CKR.TOKEN_NOT_PRESENT || rv === K.CKR.DEVICE_REMOVED) {
      say("error", "The token is not available.", "Insert it and try again.", f.proof);
    } else {
      say("error", "The token refused the change.", "It answered " + result + ".", f.proof);
    }
  }

  function submit(f) {
    if (K.closed()) return;
    [f.proof, f.pin, f.again].forEach(function (field) { field.removeAttribute("aria-invalid"); });
    if (!check(f)) return;
    message.hidden = true;
    f.button.disabled = true;
    K.afterPaint(function () {
      api.SetProperty(f.proofName, f.proof.value);
      api.SetProperty("NewPin", f.pin.value);
      // The plug-in has them now, and wipes them after this one call.
      [f.proof, f.pin, f.again].forEach(function (field) { field.value = ""; });
      var rv = api.Invoke(f.command);
      result = api.GetProperty("LastResult") || "CKR_0x" + (rv >>> 0).toString(16).toUpperCase();
      f.button.disabled = false;
      var blocked = showState();
      if (rv === 0 && !blocked) showUnblock(false);
      answer(f, rv);
    });
  }

  function finish() { K.exit(result || "CKR_FUNCTION_CANCELED"); }

  Object.keys(forms).forEach(function (name) {
    forms[name].form.addEventListener("submit", function (event) {
      event.preventDefault();
      submit(forms[name]);
    });
  });
  $("unblock-toggle").addEventListener("click", function () {
    showUnblock(forms.unblock.form.hidden);
    (forms.unblock.form.hidden ? forms.change : forms.unblock).proof.focus();
  });
  $("close").addEventListener("click", finish);
  K.onEscape(function () { return result || "CKR_FUNCTION_CANCELED"; });

  function start() {
    var why = K.unavailable();
    if (why) {
      $("token-label").textContent = why.label;
      Object.keys(forms).forEach(function (name) { forms[name].form.hidden = forms[name].button.hidden = true; });
      $("unblock-toggle").hidden = true;
      result = why.result;
      say("error", why.title, why.detail, $("close"));
      return;
    }
    token = K.showToken();
    $("token-make").textContent = [token.model, token.manufacturer].filter(Boolean).join(" by ");
    $("limits").textContent = limitsText();
    if (!showState()) {
      forms.change.proof.focus();
    } else if (token.pinState === "locked") {
      say("error", "The user PIN is locked.", "Set a new one with the SO PIN.", forms.unblock.proof);
    } else {
      say("error", "The token has no user PIN yet.", "Set one with the SO PIN.", forms.unblock.proof);
    }
  }

  // Opened in an ordinary browser: a pretend token with user PIN 123456 and
  // SO PIN 12345678.
  function previewApi() {
    var pins = { user: "123456", so: "12345678" };
    var set = {};
    var last = "";
    var values = { "Status": "ready", "Token:Label": "Preview token", "Token:Serial": "0000000000000000",
                   "Token:Model": "Preview", "Token:Manufacturer": "Kavori", "Token:MinPinLength": "4",
                   "Token:MaxPinLength": "32", "Token:PinState": "ok" };
    return {
      GetProperty: function (name) { return name === "LastResult" ? last : (values[name] || ""); },
      SetProperty: function (name, value) { set[name] = value; return null; },
      EnumProperty: function () { return ""; },
      Invoke: function (command) {
        var ok = command === "ChangePin" ? set.OldPin === pins.user : set.SoPin === pins.so;
        if (ok) pins.user = set.NewPin;
        set = {};
        last = ok ? "CKR_OK" : "CKR_PIN_INCORRECT";
        return ok ? 0 : K.CKR.PIN_INCORRECT;
      },
      Application: function (command, value) { document.body.setAttribute("data-result", value); }
    };
  }

  start();
})();
