// The demo certificate dialog.  It lists the token's certificates (one
// EnumProperty answer, tens of kilobytes for a full token), lets the user
// pick one by mouse or keyboard, and ends the host with that certificate's
// CKA_ID in hex; "CKR_FUNCTION_CANCELED" when the user cancels, or the
// reason why nothing can be chosen.
"use strict";

(function () {
  var K = KavoriDialog;
  var $ = K.$;
  var api = K.connect(previewApi);
  var list = $("list");
  var filter = $("filter");
  var choose = $("choose");

  var items = [];          // {certificate, element, problem}, in the order shown
  var current = null;      // the item with the selection and the list's tab stop
  var closeResult = null;  // set when the dialog can only be closed

  var KEY_USAGE = {
    digitalSignature: "signing", nonRepudiation: "signing", keyEncipherment: "encryption",
    dataEncipherment: "encryption", keyAgreement: "encryption", keyCertSign: "issuing certificates",
    cRLSign: "issuing certificates"
  };
  var PURPOSE = {
    clientAuth: "client login", serverAuth: "server", emailProtection: "e-mail", codeSigning: "code signing",
    timeStamping: "time stamping", OCSPSigning: "OCSP signing", smartcardLogon: "smart card logon"
  };

  function day(iso) { return iso ? iso.slice(0, 10) : "?"; }

  // What the key may be used for, in words ("Signing only", "Signing, e-mail").
  function usageText(certificate) {
    if (!certificate.keyUsage) return "Any use";
    var words = [];
    function add(word) { if (word && words.indexOf(word) < 0) words.push(word); }
    certificate.keyUsage.forEach(function (name) { add(KEY_USAGE[name]); });
    (certificate.extendedKeyUsage || []).forEach(function (name) {
      if (name !== "anyExtendedKeyUsage") add(PURPOSE[name] || name);
    });
    if (words.length === 0) return "No use";
    var text = words.join(", ");
    return text.charAt(0).toUpperCase() + text.slice(1) + (words.length === 1 ? " only" : "");
  }

  // Why a certificate cannot be chosen ({badge, title, detail}), or null.
  function problemOf(certificate, now) {
    if (certificate.unreadable) {
      return { badge: "Unreadable", title: "This certificate cannot be read.", detail: "Choose another one." };
    }
    if (!certificate.id) {
      return { badge: "No ID", title: "This certificate has no identifier.", detail: "Choose another one." };
    }
    if (certificate.notAfter && Date.parse(certificate.notAfter) < now) {
      return { badge: "Expired", title: "This certificate expired on " + day(certificate.notAfter) + ".",
               detail: "Choose another one." };
    }
    if (certificate.notBefore && Date.parse(certificate.notBefore) > now) {
      return { badge: "Not yet valid", title: "This certificate is valid from " + day(certificate.notBefore) + ".",
               detail: "Choose another one." };
    }
    return null;
  }

  // One option of the list.  Every text from the token goes in as text.
  function element(item, index) {
    var certificate = item.certificate;
    var option = document.createElement("li");
    option.id = "certificate-" + index;
    option.className = "cert" + (item.problem ? " unusable" : "");
    option.setAttribute("role", "option");
    option.setAttribute("aria-selected", "false");
    option.tabIndex = -1;
    var label = certificate.label || certificate.subject || "Unnamed certificate";
    option.setAttribute("aria-label", label + (item.problem ? ", " + item.problem.badge.toLowerCase() : ""));
    option.setAttribute("aria-describedby", option.id + "-details");

    var title = document.createElement("div");
    title.className = "cert-title";
    var name = document.createElement("span");
    name.className = "cert-label";
    name.textContent = label;
    title.appendChild(name);
    if (item.problem) {
      var badge = document.createElement("span");
      badge.className = "badge";
      badge.textContent = item.problem.badge;
      title.appendChild(badge);
    }
    var details = document.createElement("div");
    details.id = option.id + "-details";
    details.className = "cert-details";
    if (certificate.unreadable) {
      details.textContent = "ID " + (certificate.id || "none");
    } else {
      details.textContent = (certificate.subject || "?") + " · issued by " + (certificate.issuer || "?") + "\n" +
        "Valid " + day(certificate.notBefore) + " to " + day(certificate.notAfter) + " · " + usageText(certificate);
    }
    option.appendChild(title);
    option.appendChild(details);
    return option;
  }

  function visible() { return items.filter(function (item) { return !item.element.hidden; }); }

  // Moves the selection (and, when focus is true, the focus) to item.
  function select(item, focus) {
    if (current) {
      current.element.setAttribute("aria-selected", "false");
      current.element.tabIndex = -1;
    }
    current = item;
    if (!item) return;
    item.element.setAttribute("aria-selected", "true");
    item.element.tabIndex = 0;
    item.element.scrollIntoView({ block: "nearest" });
    if (focus) item.element.focus();
  }

  function showError(title, detail) { K.show($("error"), title, detail); }

  function countText() {
    var shown = visible().length;
    if (items.length === 0) return "There are no certificates on this token.";
    if (shown === items.length) return items.length + (items.length === 1 ? " certificate" : " certificates");
    if (shown === 0) return "No certificate matches “" + filter.value + "”.";
    return shown + " of " + items.length + " certificates match.";
  }

  // Narrows the list to the certificates whose label or holder's name holds
  // the filter's text, whatever its case.
  function applyFilter() {
    var words = filter.value.trim().toLowerCase();
    items.forEach(function (item) {
      var names = ((item.certificate.label || "") + "\n" + (item.certificate.subject || "")).toLowerCase();
      item.element.hidden = words !== "" && names.indexOf(words) < 0;
    });
    if (!current || current.element.hidden) select(visible()[0] || null, false);
    $("count").textContent = countText();
    $("error").hidden = true;
  }

  function finish() {
    if (closeResult) {
      K.exit(closeResult);
      return;
    }
    if (!current) {
      showError("No certificate is selected.", items.length ? "Choose one from the list." : "");
      return;
    }
    if (current.problem) {
      showError(current.problem.title, current.problem.detail);
      return;
    }
    K.exit(current.certificate.id);
  }

  function closeOnly(result, title, detail) {
    closeResult = result;
    showError(title, detail);
    filter.disabled = true;
    choose.textContent = "Close";
    $("hint").innerHTML = "<kbd>Enter</kbd> to close";
    choose.focus();
  }

  // Arrows, Home, End and the page keys move through the shown certificates;
  // Enter chooses; a letter goes on to the filter.
  list.addEventListener("keydown", function (event) {
    var shown = visible();
    var at = shown.indexOf(current);
    var to = { ArrowDown: at + 1, ArrowUp: at - 1, Home: 0, End: shown.length - 1, PageDown: at + 10,
               PageUp: at - 10 }[event.key];
    if (to !== undefined) {
      event.preventDefault();
      if (shown.length) select(shown[Math.max(0, Math.min(shown.length - 1, to))], true);
    } else if (event.key === "Enter" || event.key === " ") {
      event.preventDefault();
      if (event.key === "Enter") finish();
    } else if (event.key.length === 1 && !event.ctrlKey && !event.altKey && !event.metaKey && !filter.disabled) {
      event.preventDefault();
      filter.value += event.key;
      filter.focus();
      applyFilter();
    }
  });
  list.addEventListener("click", function (event) {
    var option = event.target.closest("[role=option]");
    var item = items.filter(function (entry) { return entry.element === option; })[0];
    if (item) select(item, true);
  });
  list.addEventListener("dblclick", function (event) {
    if (event.target.closest("[role=option]")) finish();
  });
  filter.addEventListener("input", applyFilter);
  filter.addEventListener("keydown", function (event) {
    if (event.key === "ArrowDown" && current) {
      event.preventDefault();
      select(current, true);
    } else if (event.key === "Enter") {
      event.preventDefault();
      finish();
    }
  });
  choose.addEventListener("click", finish);
  $("cancel").addEventListener("click", function () { K.exit("CKR_FUNCTION_CANCELED"); });
  K.onEscape(function () { return "CKR_FUNCTION_CANCELED"; });

  function start() {
    var why = K.unavailable();
    if (why) {
      $("token-label").textContent = why.label;
      $("count").textContent = "";
      closeOnly(why.result, why.title, why.detail);
      return;
    }
    K.showToken();
    var answer = api.EnumProperty("Certificates", "");
    var certificates = null;
    try {
      certificates = JSON.parse(answer);
    } catch (error) {
      certificates = null;
    }
    if (!Array.isArray(certificates)) {
      $("count").textContent = "";
      closeOnly("CKR_FUNCTION_FAILED", "The certificates could not be read from the token.",
                api.GetProperty("LastResult"));
      return;
    }
    // The ones that can be chosen first, each group by label.
    var now = Date.now();
    items = certificates.filter(function (certificate) { return certificate && typeof certificate === "object"; })
      .map(function (certificate) { return { certificate: certificate, problem: problemOf(certificate, now) }; });
    items.sort(function (a, b) {
      if (!a.problem !== !b.problem) return a.problem ? 1 : -1;
      return String(a.certificate.label).localeCompare(String(b.certificate.label), undefined, { numeric: true });
    });
    var all = document.createDocumentFragment();
    items.forEach(function (item, index) {
      item.element = element(item, index);
      all.appendChild(item.element);
    });
    list.appendChild(all);
    applyFilter();
    if (current) {
      current.element.focus();
    } else {
      choose.disabled = true;
      $("cancel").focus();
    }
  }

  // Opened in an ordinary browser, the page lists a few pretend certificates.
  function previewApi() {
    var certificates = [
      { id: "01", label: "Authentication", subject: "A. Person", issuer: "Preview CA",
        notBefore: "2024-01-01T00:00:00Z", notAfter: "2034-01-01T00:00:00Z", keyUsage: ["digitalSignature"],
        extendedKeyUsage: ["clientAuth"] },
      { id: "02", label: "Signature", subject: "A. Person", issuer: "Preview CA",
        notBefore: "2024-01-01T00:00:00Z", notAfter: "2034-01-01T00:00:00Z", keyUsage: ["nonRepudiation"],
        extendedKeyUsage: [] },
      { id: "03", label: "Old authentication", subject: "A. Person", issuer: "Preview CA",
        notBefore: "2019-01-01T00:00:00Z", notAfter: "2020-01-01T00:00:00Z", keyUsage: null, extendedKeyUsage: [] }
    ];
    return {
      GetProperty: function (name) {
        return { "Status": "ready", "Token:Label": "Preview token", "Token:Serial": "0000" }[name] || "";
      },
      SetProperty: function () { return null; },
      EnumProperty: function () { return JSON.stringify(certificates); },
      Invoke: function () { return 0; },
      Application: function (command, result) { document.body.setAttribute("data-result", result); }
    };
  }

  start();
})();
