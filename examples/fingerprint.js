#!/usr/bin/gjs
// Sends a fingerprint and prints the answer: fingerprint.js FILE
imports.gi.versions.Orvex = '1.0';
const { Gio, GLib, Orvex } = imports.gi;

try {
    const [question] = Gio.File.new_for_commandline_arg(ARGV[0]).load_bytes(null);
    const client = Orvex.Client.new(null);
    const request = Orvex.Request.new('fingerprintRequest', 'fingerprint', '1.0', 'application/xml');
    const answer = client.ask(request, question, null);
    print(new TextDecoder().decode(answer.toArray()));
} catch (error) {
    printerr(`fingerprint.js: ${error.message}`);
    imports.system.exit(1);
}
