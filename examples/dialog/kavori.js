// What the demo dialogs share of their talk with the host: the Kavori object
// (or a page's stand-in when it is opened in an ordinary browser), ending the
// dialog once, Escape, the token's card and PIN state in words, and message
// boxes that a screen reader reads out when they change.
//
// A classic script rather than an ES module: browsers refuse module scripts
// on file:// pages, and every page should still open in one for a preview.
"use strict";

var KavoriDialog = (function () {
  // The PKCS#11 codes that the pages answer in words.
  var CKR = {
    DEVICE_REMOVED: 0x32, PIN_INCORRECT: 0xa0, PIN_INVALID: 0xa1, PIN_LEN_RANGE: 0xa2, PIN_EXPIRED: 0xa3,
    PIN_LOCKED: 0xa4, SESSION_READ_ONLY: 0xb5, TOKEN_NOT_PRESENT: 0xe0, TOKEN_NOT_RECOGNIZED: 0xe1,
    TOKEN_WRITE_PROTECTED: 0xe2
  };
  var api = null;
  var closing = false;

  function $(id) { return document.getElementById(id); }

  // The host's object; preview() builds a stand-in when there is no host.
  function connect(preview) {
    api = window.Kavori || preview();
    return api;
  }

  // Ends the dialog with result; only the first call counts.
  function exit(result) {
    if (closing) return;
    closing = true;
    api.Application("exit", result);
  }

  function closed() { return closing; }

  // Escape ends the dialog with what result() says at that moment.
  function onEscape(result) {
    document.addEventListener("keydown", function (event) {
      if (event.key !== "Escape") return;
      event.preventDefault();
      exit(result());
    });
  }

  // Why the token cannot be used ({label, result, title, detail}), or null
  // when it is ready.
  function unavailable() {
    var status = api.GetProperty("Status");
    if (status === "no-module") {
      return { label: "No token software", result: "CKR_FUNCTION_FAILED",
               title: "The token software could not be loaded.", detail: api.GetProperty("Module") };
    }
    if (status !== "ready") {
      return { label: "No token found", result: "CKR_TOKEN_NOT_PRESENT",
               title: "No security token found.", detail: "Insert your token and open the dialog again." };
    }
    return null;
  }

  // The selected token's fields (label, serial, model, manufacturer,
  // pinState, minPinLength, maxPinLength), shown in the page's token card
  // (#token-label, #token-serial) and footer (#foot) where it has them.
  function showToken() {
    var token = {
      label: api.GetProperty("Token:Label"),
      serial: api.GetProperty("Token:Serial"),
      model: api.GetProperty("Token:Model"),
      manufacturer: api.GetProperty("Token:Manufacturer"),
      minPinLength: parseInt(api.GetProperty("Token:MinPinLength"), 10) || 0,
      maxPinLength: parseInt(api.GetProperty("Token:MaxPinLength"), 10) || 0
    };
    if ($("token-label")) $("token-label").textContent = token.label || "Unnamed token";
    if ($("token-serial")) $("token-serial").textContent = token.serial ? "Serial " + token.serial : "";
    var version = /Kavori\/(\S+)/.exec(navigator.userAgent);
    if ($("foot")) {
      $("foot").textContent = "Kavori" + (version ? " " + version[1] : "") + (token.model ? " · " + token.model : "");
    }
    token.pinState = api.GetProperty("Token:PinState");
    return token;
  }

  // PKCS#11 tells no number of tries, only that few or one are left.
  function triesText(state) {
    if (state === "final-try") return "One try left: another wrong PIN locks the token.";
    if (state === "count-low") return "Only a few tries are left before the token locks.";
    return "Please try again.";
  }

  // Tokens count a PIN's length in bytes of UTF-8, not in characters.
  function pinLength(text) { return new TextEncoder().encode(text).length; }

  // A message box: an element with a .title and a .detail inside, whose role
  // (alert or status) has it read out when it changes.
  function show(box, title, detail) {
    box.querySelector(".title").textContent = title;
    box.querySelector(".detail").textContent = detail || "";
    box.hidden = false;
  }

  // A plug-in call holds the page until the token answers: paint the busy
  // state first.
  function afterPaint(work) { window.setTimeout(work, 30); }

  return { CKR: CKR, $: $, connect: connect, exit: exit, closed: closed, onEscape: onEscape, unavailable: unavailable,
           showToken: showToken, triesText: triesText, pinLength: pinLength, show: show, afterPaint: afterPaint };
})();
