// What eslint holds the page of the engine and its tests to.

const names = (...some) => Object.fromEntries(some.map((name) => [name, "readonly"]));

const rules = {
  "array-callback-return": "error",
  "arrow-parens": "error",
  "comma-dangle": ["error", "only-multiline"],
  "complexity": ["error", 12],
  "consistent-return": "error",
  "constructor-super": "error",
  "curly": ["error", "multi-line"],
  "default-case-last": "error",
  "eol-last": "error",
  "eqeqeq": "error",
  "for-direction": "error",
  "getter-return": "error",
  "max-depth": ["error", 3],
  "max-len": ["error", { code: 100 }],
  "max-lines": ["error", 300],
  "max-lines-per-function": ["error", 40],
  "no-async-promise-executor": "error",
  "no-class-assign": "error",
  "no-compare-neg-zero": "error",
  "no-cond-assign": "error",
  "no-const-assign": "error",
  "no-constant-condition": "error",
  "no-dupe-args": "error",
  "no-dupe-else-if": "error",
  "no-dupe-keys": "error",
  "no-duplicate-imports": "error",
  "no-empty": "error",
  "no-eval": "error",
  "no-fallthrough": "error",
  "no-func-assign": "error",
  "no-global-assign": "error",
  "no-implied-eval": "error",
  "no-import-assign": "error",
  "no-irregular-whitespace": "error",
  "no-loss-of-precision": "error",
  "no-misleading-character-class": "error",
  "no-new-func": "error",
  "no-param-reassign": "error",
  "no-redeclare": "error",
  "no-self-assign": "error",
  "no-self-compare": "error",
  "no-shadow": "error",
  "no-sparse-arrays": "error",
  "no-tabs": "error",
  "no-throw-literal": "error",
  "no-trailing-spaces": "error",
  "no-undef": "error",
  "no-unreachable": "error",
  "no-unsafe-finally": "error",
  "no-unsafe-optional-chaining": "error",
  "no-unused-expressions": "error",
  "no-unused-vars": "error",
  "no-use-before-define": ["error", { functions: false }],
  "no-useless-escape": "error",
  "no-useless-return": "error",
  "no-var": "error",
  "prefer-const": "error",
  "quotes": ["error", "double"],
  "semi": "error",
  "use-isnan": "error",
  "valid-typeof": "error",
};

const everywhere = names("URLSearchParams", "AbortSignal", "fetch");

// No module may say how the page looks to a parser: texts reach the document as text only.
const markup = ["innerHTML", "outerHTML", "insertAdjacentHTML"]
  .map((property) => ({ property, message: "Texts are set as text." }));

export default [
  {
    files: ["engine/page/*.js"],
    languageOptions: {
      globals: {
        ...everywhere,
        ...names("HTMLInputElement", "clearTimeout", "document", "getComputedStyle", "history",
          "location", "setTimeout", "window"),
      },
    },
    rules: {
      ...rules,
      "no-restricted-properties": ["error", ...markup],
      // Lines are served without their indentation.
      "no-restricted-syntax": ["error", "TemplateLiteral"],
      "no-multi-str": "error",
    },
  },
  {
    // What needs no document has none.
    files: ["api", "format", "plot", "sentences", "state", "waterfall"]
      .map((module) => "engine/page/" + module + ".js"),
    languageOptions: {
      globals: {
        ...Object.fromEntries(["document", "getComputedStyle", "history", "location", "window"]
          .map((name) => [name, "off"])),
      },
    },
  },
  {
    files: ["tests/page/*.mjs", "eslint.config.mjs"],
    languageOptions: { globals: { ...everywhere, ...names("process", "globalThis") } },
    rules,
  },
  {
    files: ["tests/engine/*.js"],
    languageOptions: {
      sourceType: "commonjs", globals: names("Buffer", "console", "process", "require"),
    },
    rules,
  },
];
