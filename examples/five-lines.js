imports.gi.versions.Orvex = '1.0';
const { Gio, Orvex } = imports.gi;
const [question] = Gio.File.new_for_path('fingerprint.xml').load_bytes(null);
const request = Orvex.Request.new('fingerprintRequest', 'fingerprint', '1.0', 'application/xml');
print(new TextDecoder().decode(Orvex.Client.new(null).ask(request, question, null).toArray()));
