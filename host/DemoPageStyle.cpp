#include "host/DemoPage.h"

namespace kestrin::host {

// Every control is at least 44 px each way, so a finger can hit it; long file names wrap
// anywhere, so a phone 360 px wide never scrolls sideways.
const std::string_view demoPageStyle = R"css(
* { box-sizing: border-box; }
body { font-family: system-ui, sans-serif; line-height: 1.4; color: #222; margin: 0; }
main { max-width: 44rem; margin: 0 auto; padding: 1rem; }
h1 { font-size: 1.4rem; }
h2 { font-size: 1.1rem; margin-top: 0; }
section { border: 1px solid #ccc; border-radius: 6px; padding: 1rem; margin: 1rem 0; }
.hint { color: #555; font-size: 0.9rem; }
.field label, form label { display: block; font-weight: bold; margin-bottom: 0.3rem; }
select, button, input[type=file] { font: inherit; min-height: 44px; max-width: 100%; }
select { width: 100%; }
::file-selector-button { font: inherit; min-height: 44px; }
button { min-width: 44px; padding: 0.4rem 1.2rem; }
:focus-visible { outline: 3px solid #1565c0; outline-offset: 2px; }
#dropZone { border: 2px dashed #666; border-radius: 6px; padding: 2rem 1rem; text-align: center;
            cursor: pointer; min-height: 44px; }
#dropZone.over { border-color: #1a7f37; background: #eef8ef; }
.bar { display: flex; flex-wrap: wrap; gap: 0.5rem; align-items: center;
       justify-content: space-between; margin-top: 0.8rem; }
.bar p { margin: 0; }
#rows { list-style: none; padding: 0; margin: 0; }
.row { border-top: 1px solid #ddd; padding: 0.6rem 0; display: grid; gap: 0.3rem;
       grid-template-columns: minmax(0, 1fr) auto; }
.row .label { display: flex; flex-wrap: wrap; gap: 0 0.6rem; align-items: baseline;
              min-width: 0; }
.row .name { font-weight: bold; overflow-wrap: anywhere; min-width: 0; }
.row .size, .row .numbers { color: #555; font-size: 0.9rem; }
.row .meter, .row .numbers, .row .outcome { grid-column: 1 / -1; }
.row .meter { display: flex; gap: 0.5rem; align-items: center; }
.row progress { flex: 1; min-width: 0; height: 1rem; }
.row .percent { min-width: 4.5em; text-align: right; font-variant-numeric: tabular-nums; }
.row .cancel { grid-column: 2; grid-row: 1; }
.row[data-state=stored] .meter, .row[data-state=refused] .meter,
.row[data-state=failed] .meter, .row[data-state=cancelled] .meter { display: none; }
.outcome { margin: 0; overflow-wrap: anywhere; }
.outcome .sentence { font-weight: bold; }
.outcome .original { display: block; color: #555; font-size: 0.85rem; }
.outcome code { background: #f3f3f3; padding: 0 0.2em; }
.stored .sentence { color: #1a7f37; }
.refused .sentence, .failed .sentence { color: #c62828; }
.cancelled .sentence { color: #555; }
.spoken { position: absolute; width: 1px; height: 1px; overflow: hidden; clip: rect(0 0 0 0);
          white-space: nowrap; }
)css";

} // namespace kestrin::host
