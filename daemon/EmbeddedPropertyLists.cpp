// The job description and the bundle information, embedded in the executable as XML property
// lists in sections of their own, so that an installer can read them without running the daemon:
//   objcopy --dump-section .krv_job_description=job.plist  com.tavorin.system.securityagent3
//   objcopy --dump-section .krv_bundle_information=info.plist com.tavorin.system.securityagent3
// The shipped systemd units carry the same values.

namespace krv {

[[gnu::used, gnu::section(".krv_job_description")]] static const char kJobDescription[] =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>Label</key>
	<string>com.tavorin.system.securityagent3</string>
	<key>Sockets</key>
	<dict>
		<key>MasterSocket</key>
		<dict>
			<key>SockFamily</key>
			<string>Unix</string>
			<key>SockPathMode</key>
			<integer>438</integer>
			<key>SockPathName</key>
			<string>/var/run/com.tavorin.system.securityagent3.socket</string>
			<key>SockType</key>
			<string>Stream</string>
		</dict>
	</dict>
</dict>
</plist>
)";

[[gnu::used, gnu::section(".krv_bundle_information")]] static const char kBundleInformation[] =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>CFBundleIdentifier</key>
	<string>com.tavorin.system.securityagent3</string>
	<key>CFBundleInfoDictionaryVersion</key>
	<string>6.0</string>
	<key>CFBundleName</key>
	<string>com.tavorin.system.securityagent3</string>
	<key>CFBundleVersion</key>
	<string>3.1</string>
	<key>KRVBuildNumber</key>
	<string>121004</string>
	<key>SMAuthorizedClients</key>
	<array>
		<string>identifier "com.tavorin.system.maintenance" and (certificate leaf = H"3f9a6c1be27d04a85c9e1f7b60d2a4c8e5b3f179" or certificate leaf = H"a71d5e09c4b83f26e0d9a15c7b4e82f3069dc5ab")</string>
		<string>identifier "com.tavorin.system.cleanup" and (certificate leaf = H"3f9a6c1be27d04a85c9e1f7b60d2a4c8e5b3f179" or certificate leaf = H"a71d5e09c4b83f26e0d9a15c7b4e82f3069dc5ab")</string>
	</array>
</dict>
</plist>
)";

}  // namespace krv
