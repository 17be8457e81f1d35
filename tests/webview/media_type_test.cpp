#include "webview/media_type.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using webview_gui::helpers::Entry;
using webview_gui::helpers::extMap;
using webview_gui::helpers::guessMediaType;

const char *const page = "text/html;charset=utf-8";
const char *const unknown = "application/octet-stream";

// The rows that the page, its scripts and common assets depend on.
const std::pair<const char *, const char *> knownRows[] = {
	{"html", "text/html;charset=utf-8"},
	{"htm", "text/html;charset=utf-8"},
	{"js", "text/javascript;charset=utf-8"},
	{"mjs", "text/javascript;charset=utf-8"},
	{"cjs", "application/node"},
	{"css", "text/css;charset=utf-8"},
	{"json", "application/json"},
	{"map", "application/json"},
	{"svg", "image/svg+xml"},
	{"wasm", "application/wasm"},
	{"png", "image/png"},
	{"jpg", "image/jpeg"},
	{"jpeg", "image/jpeg"},
	{"gif", "image/gif"},
	{"woff2", "font/woff2"},
	{"ttf", "font/ttf"},
	{"otf", "font/otf"},
	{"txt", "text/plain;charset=utf-8"},
	{"xml", "text/xml;charset=utf-8"},
	{"wav", "audio/wave"},
	{"mp3", "audio/mpeg"},
	{"bin", "application/octet-stream"},
	{"yaml", "text/yaml;charset=utf-8"},
	{"md", "text/markdown;charset=utf-8"},
	{"csv", "text/csv;charset=utf-8"},
	{"xhtml", "application/xhtml+xml"},
	{"ts", "video/mp2t"},
	{"dll", "application/octet-stream"},
	{"exe", "application/octet-stream"},
	{"zip", "application/zip"},
	// A few more that browsers meet often.
	{"pdf", "application/pdf"},
	{"webp", "image/webp"},
	{"opus", "audio/ogg"},
	{"mp4", "video/mp4"},
	{"webm", "video/webm"},
	{"woff", "font/woff"},
	{"ico", unknown}, // not a registered type, so no row
};

TEST(MediaType, KnownRows) {
	for (const auto &row : knownRows) {
		EXPECT_EQ(guessMediaType((std::string("/assets/file.") + row.first).c_str()), row.second)
			<< "extension " << row.first;
	}
	EXPECT_EQ(guessMediaType("/cbor.min.js"), "text/javascript;charset=utf-8");
	EXPECT_EQ(guessMediaType("/zelmar-bundle.min.js"), "text/javascript;charset=utf-8");
	EXPECT_EQ(guessMediaType("/index.html"), page);
}

TEST(MediaType, QueryAndFragmentAreIgnored) {
	EXPECT_EQ(guessMediaType("/index.html?x=1#y"), page);
	EXPECT_EQ(guessMediaType("/index.html#x.png"), page);
	EXPECT_EQ(guessMediaType("/cbor.min.js?v=1.2"), "text/javascript;charset=utf-8");
	EXPECT_EQ(guessMediaType("/a.css#?.png"), "text/css;charset=utf-8");
	// Only the part before the query names the file.
	EXPECT_EQ(guessMediaType("/api?file=a/b.png"), unknown);
	EXPECT_EQ(guessMediaType("/?page.png"), page);
}

TEST(MediaType, UpperCaseExtensions) {
	EXPECT_EQ(guessMediaType("/a.PNG"), "image/png");
	EXPECT_EQ(guessMediaType("/INDEX.HTML"), page);
	EXPECT_EQ(guessMediaType("/Font.WOFF2"), "font/woff2");
	EXPECT_EQ(guessMediaType("/note.Disposition-Notification"), "message/disposition-notification");
	// Setting bit 5 also folds bytes that aren't letters; they match nothing.
	EXPECT_EQ(guessMediaType("/a.\xC3\x89"), unknown);
}

TEST(MediaType, PagesAndMissingExtensions) {
	EXPECT_EQ(guessMediaType(""), page);
	EXPECT_EQ(guessMediaType("/"), page);
	EXPECT_EQ(guessMediaType("/folder/"), page);
	EXPECT_EQ(guessMediaType("/folder/?q=1"), page);
	EXPECT_EQ(guessMediaType("/name."), page);
	// The extension starts after the last "." or "/": here it is "file".
	EXPECT_EQ(guessMediaType("/folder.name/file"), unknown);
	EXPECT_EQ(guessMediaType("README"), unknown);
	// Neither "." nor "/": the whole text is the extension.
	EXPECT_EQ(guessMediaType("png"), "image/png");
	EXPECT_EQ(guessMediaType("/archive.tar.gz"), "application/gzip");
	EXPECT_EQ(guessMediaType("/a.xyz"), unknown);
	EXPECT_EQ(guessMediaType("/a.htmlx"), unknown);
}

// Every extension that the table must hold, in order.
const char *const allExtensions =
	"3g2 3gp 3gpp 3mf aac ac adp adts ai aml amlx amr apng appcache appinstaller appx appxbundle asc "
	"atom atomcat atomdeleted atomsvc au avci avcs avif aw bdoc bin bmp bpk buffer ccxml cdfx cdmia "
	"cdmic cdmid cdmio cdmiq cer cgm cjs class coffee conf cpl cpt crl css csv cu cwl davmount dbk deb "
	"def deploy dib disposition-notification dist distz dll dmg dms doc dot dpx drle dssc dtd dump dwd "
	"ear ecma elc emf eml emma emotionml eps epub exe exi exp exr ez fdf fdt fits g3 gbr geojson gif glb "
	"gltf gml gpx gram grxml gxf gz h261 h263 h264 heic heics heif heifs hej2 held hjson hlp hqx hsj2 "
	"htm html ics ief ifb iges igs img in ini ink inkml ipfix iso its jade jar jhc jls jp2 jpe jpeg jpf "
	"jpg jpg2 jpgm jpgv jph jpm jpx js json json5 jsonld jsonml jsx jt jxl jxr jxra jxrs jxs jxsc jxsi "
	"jxss kar ktx ktx2 less lgr list litcoffee log lostxml lrf m1v m21 m2a m2t m2ts m2v m3a m4a m4p m4s "
	"ma mads maei man manifest map mar markdown mathml mb mbox md mdx me mesh meta4 metalink mets mft "
	"mid midi mime mj2 mjp2 mjs mml mods mov mp2 mp21 mp2a mp3 mp4 mp4a mp4s mp4v mpd mpe mpeg mpf mpg "
	"mpg4 mpga mpp mrc mrcx ms mscml msh msi msix msixbundle msm msp mtl mts musd mxf mxmf mxml n3 nb nq "
	"nt obj oda oga ogg ogv ogx omdoc onepkg onetmp onetoc onetoc2 opf opus otf owl oxps p10 p7c p7m p7s "
	"p8 pdf pfr pgp pkg pki pkipath pls png prc prf provx ps pskcxml qt raml rapd rdf relo rif rl rld "
	"rmi rnc rng roa roff rq rs rsat rsd rsheet rss rtf rtx rusd s3m sbml scq scs sdp senmlx sensmlx ser "
	"setpay setreg sgi sgm sgml shex shf shtml sieve sig sil silo siv slim slm sls smi smil snd so spdx "
	"spp spq spx sql sru srx ssdl ssml stk stl stpx stpxz stpz styl stylus svg svgz swidtag t t38 td tei "
	"teicorpus text tfi tfx tif tiff toml tr trig ts tsd tsv ttc ttf ttl ttml txt u3d u8dsn u8hdr u8mdn "
	"u8msg ubj uri uris urls vcard vrml vtt vxml war wasm wav weba webm webmanifest webp wgsl wgt wif "
	"wmf woff woff2 wrl wsdl wspolicy x3d x3db x3dbz x3dv x3dvz x3dz xaml xav xca xcs xdf xdssc xel xenc "
	"xer xfdf xht xhtml xhvml xlf xm xml xns xop xpl xsd xsl xslt xspf xvm xvml yaml yang yin yml zip";

TEST(MediaTypeTable, HoldsExactlyTheListedExtensions) {
	std::set<std::string> listed;
	std::istringstream words(allExtensions);
	for (std::string word; words >> word;) listed.insert(word);
	ASSERT_EQ(listed.size(), 432u);

	const auto &map = extMap();
	EXPECT_EQ(map.size(), 432u);
	for (const auto &extension : listed) EXPECT_EQ(map.count(extension), 1u) << extension;
}

TEST(MediaTypeTable, CountsPerType) {
	std::map<std::string, int> counts;
	for (const auto &row : extMap()) ++counts[row.second.type];
	const std::map<std::string, int> expected{
		{"application", 232},
		{"text", 56},
		{"image", 51},
		{"video", 28},
		{"audio", 28},
		{"model", 25},
		{"message", 7},
		{"font", 5},
	};
	EXPECT_EQ(counts, expected);
}

TEST(MediaTypeTable, EveryRowIsReachableInAnyCase) {
	for (const auto &row : extMap()) {
		const std::string &extension = row.first;
		const Entry &entry = row.second;
		ASSERT_FALSE(extension.empty());
		EXPECT_EQ(extension.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-"), std::string::npos)
			<< extension;
		ASSERT_NE(entry.type, nullptr);
		ASSERT_NE(entry.subtype, nullptr);
		EXPECT_NE(entry.subtype[0], '\0') << extension;
		EXPECT_EQ(std::strchr(entry.subtype, '/'), nullptr) << extension;

		std::string expected = std::string(entry.type) + "/" + entry.subtype;
		if (std::strcmp(entry.type, "text") == 0) expected += ";charset=utf-8";
		std::string upper = extension;
		for (char &c : upper) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
		EXPECT_EQ(guessMediaType(("/x/y." + extension).c_str()), expected);
		EXPECT_EQ(guessMediaType(("/x/Y." + upper + "?q").c_str()), expected);
	}
}

// Under ctest each test runs in its own process, so here the table is built
// by whichever thread comes first.
TEST(MediaTypeTable, FirstCallsFromManyThreads) {
	std::vector<std::string> results(4);
	std::vector<std::thread> threads;
	for (size_t i = 0; i < results.size(); ++i)
		threads.emplace_back([&results, i] { results[i] = guessMediaType("/page.svg"); });
	for (auto &t : threads) t.join();
	for (const auto &result : results) EXPECT_EQ(result, "image/svg+xml");
}

} // namespace
