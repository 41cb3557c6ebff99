// Elements of the page. Names and texts from the host become text only, never markup.

// make('button', {type: 'button', class: 'x'}, 'text', element...)
export function make(tag, attributes = {}, ...children) {
    const element = document.createElement(tag);
    setAttributes(element, attributes);
    element.append(...children);
    return element;
}

export function makeSvg(tag, attributes = {}, ...children) {
    const element = document.createElementNS('http://www.w3.org/2000/svg', tag);
    setAttributes(element, attributes);
    element.append(...children);
    return element;
}

function setAttributes(element, attributes) {
    for (const [name, value] of Object.entries(attributes)) {
        if (typeof value === 'function') {
            element.addEventListener(name, value);
        } else if (value === true) {
            element.setAttribute(name, '');
        } else if (value !== false) {
            element.setAttribute(name, value);
        }
    }
}

// Sets a text only if it differs, so that a screen reader is not told twice.
export function setText(element, text) {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}

// Offers a file to the person.
export function download(url, name) {
    const link = make('a', {href: url, download: name});
    document.body.append(link);
    link.click();
    link.remove();
}

let lastId = 0;
// An id for an element that another one refers to.
export function newId() {
    return `id-${++lastId}`;
}
