// Findings of a page, ended as the dialog's result, so the test reads them
// from the -store file.
var findings = {};
function note(name, value) { findings[name] = value; }
function finish() { Kavori.Application("exit", JSON.stringify(findings)); }
