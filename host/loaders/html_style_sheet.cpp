#include "html_style_sheet.h"

namespace ternview {

const char* const kHtmlStyleSheet = R"css(
html { display: block; position: relative; }
head, style, script, title, meta, link { display: none; }
body { display: block; margin: 0; }
address, article, aside, center, details, dir, div, dl, dt, dd, fieldset, figcaption, figure, footer, form, header, hgroup, legend,
main, menu, nav, section, summary { display: block; }
p { display: block; margin-top: 1em; margin-bottom: 1em; }
blockquote, figure { display: block; margin: 1em 40px; }
address { font-style: italic; }
center { text-align: center; }
h1, h2, h3, h4, h5, h6 { display: block; font-weight: bold; }
h1 { font-size: 2em; margin: 0.67em 0; }
h2 { font-size: 1.5em; margin: 0.83em 0; }
h3 { font-size: 1.17em; margin: 1em 0; }
h4 { margin: 1.33em 0; }
h5 { font-size: 0.83em; margin: 1.67em 0; }
h6 { font-size: 0.67em; margin: 2.33em 0; }
pre { display: block; font-family: monospace; font-size: 0.8125em; white-space: pre-wrap; margin: 1em 0; }
code, kbd, samp, tt { display: inline; font-family: monospace; font-size: 0.8125em; }
pre code, pre tt, code code { font-size: 1em; }
hr { display: block; margin: 8px auto; border: 1px inset #808080; }
fieldset { margin: 0 2px; padding: 6px 12px 10px 12px; border: 2px groove #c0c0c0; }
ul, ol, dir, menu { display: block; margin: 1em 0; padding-left: 40px; }
ul, dir, menu { list-style-type: disc; }
ol { list-style-type: decimal; }
ul ul, ol ul { list-style-type: circle; margin: 0; }
ol ol, ul ol { margin: 0; }
ul ul ul, ol ul ul { list-style-type: square; }
li { display: list-item; }
dl { margin: 1em 0; }
dd { margin-left: 40px; }
a:link { color: #0000ee; text-decoration: underline; }
b, strong { display: inline; font-weight: bold; }
i, em, cite, dfn, var { display: inline; font-style: italic; }
u, ins { display: inline; text-decoration: underline; }
s, strike, del { display: inline; text-decoration: line-through; }
mark { display: inline; background-color: #ffff00; color: #000000; }
big { font-size: 1.2em; }
small { font-size: 0.83em; }
sub { font-size: 0.83em; position: relative; top: 0.25em; }
sup { font-size: 0.83em; position: relative; top: -0.4em; }
nobr { white-space: nowrap; }
button { display: inline-block; padding: 1px 6px; border: 1px solid #808080; background-color: #efefef; }
br, img { display: inline-block; }
table { display: table; border-collapse: separate; border-spacing: 2px; border-color: #808080; text-indent: 0; }
thead, tbody, tfoot { display: table-row-group; vertical-align: middle; }
tr { display: table-row; vertical-align: inherit; }
td, th { display: table-cell; vertical-align: inherit; padding: 1px; }
th { font-weight: bold; text-align: center; }
caption { display: table-caption; text-align: center; }
)css";

const char* const kHtmlQuirksStyleSheet = R"css(
table { font-size: 16px; font-weight: normal; font-style: normal; line-height: normal; white-space: normal; text-align: start; }
body > p:first-child, td > p:first-child, th > p:first-child { margin-top: 0; }
td > p:last-child, th > p:last-child { margin-bottom: 0; }
)css";

const char* const kHtmlRightToLeftStyleSheet = R"css(
[dir=rtl] ul, [dir=rtl] ol, ul[dir=rtl], ol[dir=rtl] { padding-left: 0; padding-right: 40px; }
[dir=ltr] ul, [dir=ltr] ol, ul[dir=ltr], ol[dir=ltr] { padding-left: 40px; padding-right: 0; }
[dir=rtl] dd, dd[dir=rtl] { margin-left: 0; margin-right: 40px; }
)css";

}  // namespace ternview
